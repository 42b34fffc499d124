#include "korvex/ShmCommon.h"

#include <gtest/gtest.h>

TEST(MessageHeader, SerializedSizeIs48) {
  EXPECT_EQ(korvex::qmx_shm_message_t::getSerializedSize(), 48u);
}
