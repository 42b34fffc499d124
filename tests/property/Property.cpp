#include "property/Property.h"

#include "property/BatchLibrary.h"
#include "property/ReadingModel.h"
#include "property/WriterLibrary.h"
#include "property/WriterModel.h"

namespace property {

std::vector<const Language*> knownLanguages() { return {&writerLanguage(), &batchLanguage()}; }

std::string replay(const Script& script) {
  if (script.language == &batchLanguage()) {
    BatchLibrary library;
    ReadingModel model;
    return firstDifference(script, library, model);
  }
  WriterLibrary library;
  WriterModel model;
  return firstDifference(script, library, model);
}

}  // namespace property
