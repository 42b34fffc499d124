#ifndef TESTS_INTEGRATION_SUPPORT_BATCH_BYTES_H
#define TESTS_INTEGRATION_SUPPORT_BATCH_BYTES_H

#include "support/WireFormat.h"

namespace test_support {

using korvex::test::BatchBytes;
using korvex::test::Bytes;

}  // namespace test_support

#endif
