#include <dlfcn.h>
#include <exception>
#include <gtest/gtest.h>
#include <string>
#include <typeinfo>

#include "korvex/ShmWriter.h"
#include "support/DaemonQueues.h"

// A program at a fixed address has the library's type information copied into itself, while the
// library's objects have the library's own: the same type under two addresses.
namespace {

std::string fileWith(const void* address) {
  Dl_info info;
  return ::dladdr(address, &info) == 0 ? "" : info.dli_fname;
}

class FixedAddress : public testing::Test {
 protected:
  korvex::test::DaemonQueues queues_;
  korvex::ShmWriter writer_{"x", queues_.name(), 1, 1, false};
  korvex::Channel& channel_ = writer_;
};

}  // namespace

TEST_F(FixedAddress, TypeInformationIsTwice) {
  EXPECT_EQ(fileWith(&typeid(korvex::ShmWriter)), fileWith(&typeid(FixedAddress)));
  EXPECT_NE(fileWith(&typeid(channel_)), fileWith(&typeid(FixedAddress)));
}

TEST_F(FixedAddress, ObjectsOfTheLibraryAreRecognised) {
  EXPECT_TRUE(typeid(channel_) == typeid(korvex::ShmWriter));
  EXPECT_NE(dynamic_cast<korvex::ChannelWriter*>(&channel_), nullptr);
  EXPECT_NE(dynamic_cast<korvex::ShmWriter*>(&channel_), nullptr);
}

TEST_F(FixedAddress, ErrorsOfTheLibraryAreCaught) {
  EXPECT_THROW(korvex::validateTimeout(0), Ov_ErrnoException);
  EXPECT_THROW(korvex::ShmWriter("x", queues_.name() + "None", 1, 1, false), std::exception);
}
