#include <fcntl.h>
#include <gtest/gtest.h>
#include <string>
#include <unistd.h>

#include "common/StandardDescriptors.h"
#include "support/RestoredDescriptor.h"

namespace {

using korvex::test::RestoredDescriptor;

std::string fileOf(int descriptor) {
  char path[300];
  const std::string link = "/proc/self/fd/" + std::to_string(descriptor);
  const ssize_t size = ::readlink(link.c_str(), path, sizeof path);
  return size < 0 ? "(closed)" : std::string(path, static_cast<std::size_t>(size));
}

int accessOf(int descriptor) { return ::fcntl(descriptor, F_GETFL) & O_ACCMODE; }

}  // namespace

TEST(StandardDescriptors, ThatAreOpenStayAsTheyAre) {
  const std::string before = fileOf(0) + fileOf(1) + fileOf(2);
  korvex::common::occupyStandardDescriptors();
  EXPECT_EQ(fileOf(0) + fileOf(1) + fileOf(2), before);
}

TEST(StandardDescriptors, WhenClosedGiveNoDataAndLoseNoResult) {
  std::string files[3];
  int access[3];
  {
    const RestoredDescriptor input(0, -1);
    const RestoredDescriptor output(1, -1);
    const RestoredDescriptor errors(2, -1);
    korvex::common::occupyStandardDescriptors();
    for (int descriptor = 0; descriptor < 3; ++descriptor) {
      files[descriptor] = fileOf(descriptor);
      access[descriptor] = accessOf(descriptor);
    }
  }
  for (const std::string& file : files) EXPECT_EQ(file, "/dev/null");
  EXPECT_EQ(access[0], O_WRONLY) << "reading must fail, not find the end of the data";
  EXPECT_EQ(access[1], O_RDONLY) << "a result that nobody gets must not look written";
  EXPECT_EQ(access[2], O_RDWR);
}

TEST(StandardDescriptors, OthersAreNotTouched) {
  const int free = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
  ::close(free);
  korvex::common::occupyStandardDescriptors();
  EXPECT_EQ(fileOf(free), "(closed)");
}
