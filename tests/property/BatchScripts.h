#ifndef TESTS_PROPERTY_BATCH_SCRIPTS_H
#define TESTS_PROPERTY_BATCH_SCRIPTS_H

#include "property/Dice.h"

namespace property {

/// A random script of the batch's language. `size`, 0 to 100, says how long it may get.
Script batchScript(Dice& dice, int size);

}  // namespace property

#endif
