// The batch and its records against their model: writing, reading, printing.
//
// RC_PARAMS sets how many scripts are run and from which seed, as in
// RC_PARAMS="max_success=1000000 seed=7": a million scripts, the long form.

#include <gtest/gtest.h>

#include "property/BatchScripts.h"
#include "property/Property.h"

namespace property {
namespace {

TEST(BatchModel, IsWhatTheLibraryDoes) {
  EXPECT_TRUE(holds("the batch does what its model does", batchScript));
}

}  // namespace
}  // namespace property
