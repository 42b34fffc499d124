#ifndef TESTS_PROPERTY_BATCH_LANGUAGE_H
#define TESTS_PROPERTY_BATCH_LANGUAGE_H

#include "property/World.h"

namespace property {

/// What can be done with a batch and its records.
///
/// `batch` makes a new one. `read` takes a copy of its bytes apart, told a `size` and with the
/// metadata block's magic and count replaced when given; the queue that it fills lives on between
/// reads. `print`, `printEntry` and `header` print, in a `style` of the caller's stream: 0 none,
/// 1 hexadecimal with signs and bases, 2 wide and filled. What needs a batch does nothing without.
const Language& batchLanguage();

/// Stands for "as it is in the batch".
constexpr std::uint64_t kAsItIs = std::uint64_t{1} << 32;

}  // namespace property

#endif
