#include "property/LibraryTools.h"

#include <locale>

namespace korvex::test {
namespace {

class Grouping : public std::numpunct<char> {
  char do_thousands_sep() const override { return '\''; }
  std::string do_grouping() const override { return "\1"; }
};

}  // namespace

void GlobalLocale::set(bool grouping) {
  const std::locale& classic = std::locale::classic();
  std::locale::global(grouping ? std::locale(classic, new Grouping) : classic);
}

}  // namespace korvex::test
