#include <errno.h>
#include <fcntl.h>
#include <filesystem>
#include <gmock/gmock.h>
#include <utility>
#include <vector>

#include "korvexd/sink/DirectorySink.h"
#include "korvexd/sink/DirectoryStore.h"
#include "support/TemporaryFolder.h"

using korvexd::DirectorySink;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;
namespace fs = std::filesystem;

namespace {

constexpr std::uint64_t kMebibyte = std::uint64_t{1} << 20;

/// Ranges that were asked for: an offset and a size.
std::vector<std::pair<off64_t, off64_t>> wishes;
int refusal = 0;

}  // namespace

/// In place of the system's function.
extern "C" int sync_file_range(int, off64_t offset, off64_t size, unsigned flags) {
  EXPECT_EQ(flags, unsigned{SYNC_FILE_RANGE_WRITE});
  wishes.emplace_back(offset, size);
  errno = refusal;
  return refusal == 0 ? 0 : -1;
}

namespace {

class Writeback : public testing::Test {
 protected:
  void SetUp() override {
    wishes.clear();
    refusal = 0;
  }

  /// The size of the stored data.
  std::uintmax_t store(std::uint64_t mebibytes, std::size_t pieceSize) const {
    korvexd::DirectoryStore store(folder_.path());
    const auto sink = store.open("q", 0);
    const std::vector<unsigned char> piece(pieceSize, 'x');
    std::uint64_t size = 0;
    for (; size < mebibytes * kMebibyte; size += pieceSize) sink->write(piece.data(), pieceSize);
    sink->complete({"q", 0, 0, size, 1, 3, ""}, [] { return true; });
    return fs::file_size(sink->place() + "/data");
  }

  korvex::test::TemporaryFolder folder_;
};

}  // namespace

TEST_F(Writeback, BeginsEverySixtyFourMebibytes) {
  EXPECT_EQ(store(130, kMebibyte), 130 * kMebibyte);
  EXPECT_THAT(wishes, ElementsAre(Pair(0, 64 * kMebibyte), Pair(64 * kMebibyte, 64 * kMebibyte)));
}

TEST_F(Writeback, BeginsForSmallPiecesToo) {
  EXPECT_EQ(store(65, kMebibyte / 16), 65 * kMebibyte);
  EXPECT_THAT(wishes, ElementsAre(Pair(0, 64 * kMebibyte)));
}

TEST_F(Writeback, IsOfNoUseForShortStreams) {
  EXPECT_EQ(store(63, kMebibyte), 63 * kMebibyte);
  EXPECT_THAT(wishes, IsEmpty());
}

TEST_F(Writeback, ThatIsRefusedChangesNothing) {
  for (const int error : {EIO, ENOSPC, ESPIPE, EINVAL, ENOSYS}) {
    wishes.clear();
    refusal = error;
    EXPECT_EQ(store(65, kMebibyte), 65 * kMebibyte);
    EXPECT_EQ(wishes.size(), 1u);
  }
}
