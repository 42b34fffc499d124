#ifndef TESTS_PROPERTY_RANDOM_SCRIPTS_H
#define TESTS_PROPERTY_RANDOM_SCRIPTS_H

#include <rapidcheck.h>

#include "property/Script.h"

namespace korvex::test {

/// Makes a random script. `size`, 0 to 100, says how long it may get.
using MakeScript = Script (*)(const rc::Random& random, int size);

Script batchScript(const rc::Random& random, int size);

/// Ends with what makes every hidden counter visible: an end record, a stop record, a close record.
Script writerScript(const rc::Random& random, int size);

/// A generator of scripts that shrink.
inline rc::Gen<Script> scripts(MakeScript makeScript) {
  return [makeScript](const rc::Random& random, int size) {
    return rc::shrinkable::shrinkRecur(makeScript(random, size), [](const Script& script) {
      return rc::seq::fromContainer(simplerScripts(script));
    });
  };
}

}  // namespace korvex::test

#endif
