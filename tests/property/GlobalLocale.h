#ifndef TESTS_PROPERTY_GLOBAL_LOCALE_H
#define TESTS_PROPERTY_GLOBAL_LOCALE_H

#include "property/Script.h"

namespace property {

/// Sets the process's locale and gives the classic one back at its end.
class GlobalLocale {
 public:
  GlobalLocale() = default;
  ~GlobalLocale() { set(false); }
  GlobalLocale(const GlobalLocale&) = delete;
  GlobalLocale& operator=(const GlobalLocale&) = delete;

  /// With grouping, a stream prints 1234 as 1'2'3'4.
  void set(bool grouping);
};

/// The verb that every language has for it.
inline Verb localeVerb() { return {"locale", {{"grouping", 0}}, false}; }

}  // namespace property

#endif
