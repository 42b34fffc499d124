#ifndef TESTS_INTEGRATION_SUPPORT_BATCH_BYTES_H
#define TESTS_INTEGRATION_SUPPORT_BATCH_BYTES_H

#include "support/WireFormat.h"

namespace korvex::test {

using korvex::test::BatchBytes;
using korvex::test::Bytes;

}  // namespace korvex::test

#endif
