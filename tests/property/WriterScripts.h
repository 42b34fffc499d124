#ifndef TESTS_PROPERTY_WRITER_SCRIPTS_H
#define TESTS_PROPERTY_WRITER_SCRIPTS_H

#include "property/Dice.h"

namespace property {

/// A random script of the writer's language. `size`, 0 to 100, says how long it may get. It ends
/// with what makes every hidden counter visible: an end record, a stop record, a close record.
Script writerScript(Dice& dice, int size);

}  // namespace property

#endif
