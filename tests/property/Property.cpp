#include "property/Property.h"

#include "property/WriterLibrary.h"
#include "property/WriterModel.h"

namespace property {

std::vector<const Language*> knownLanguages() { return {&writerLanguage()}; }

std::string replay(const Script& script) {
  WriterLibrary library;
  WriterModel model;
  return firstDifference(script, library, model);
}

}  // namespace property
