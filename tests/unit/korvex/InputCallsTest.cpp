// The calls that read the input, where the system interrupts them or has nothing to give.

#include <cerrno>
#include <deque>
#include <filesystem>
#include <fstream>
#include <gmock/gmock.h>
#include <unistd.h>
#include <utility>

#include "Failure.h"
#include "InputReader.h"
#include "support/SystemCalls.h"
#include "unit/korvex/GoodManifest.h"
#include "verify/StreamCheck.h"

namespace {

using korvex::test::system_calls::failing;
using korvex::test::system_calls::instead;
using korvex::tool::Failure;
using korvex::tool::InputReader;
using korvex::tool::StopSignal;
using korvex::tool::StoredStream;
using testing::HasSubstr;

/// A pipe with three bytes and an end, or a file with them.
class InputCalls : public testing::Test {
 protected:
  InputCalls() {
    std::string name = (std::filesystem::temp_directory_path() / "korvex-input-XXXXXX").string();
    folder_ = ::mkdtemp(name.data());
    file_ = folder_ / "file";
    std::ofstream(file_) << "abc";
    EXPECT_EQ(::pipe(ends_), 0);
    EXPECT_EQ(::write(ends_[1], "abc", 3), 3);
    ::close(ends_[1]);
    pipe_ = "/proc/self/fd/" + std::to_string(ends_[0]);
  }
  ~InputCalls() override {
    instead = {};
    ::close(ends_[0]);
    std::filesystem::remove_all(folder_);
  }

  /// The next reads fail with these errors, those after them work.
  void failReads(std::deque<int> errors) {
    instead.read = [errors](int file, void* bytes, std::size_t size) mutable -> ssize_t {
      if (errors.empty()) return korvex::test::system_calls::read(file, bytes, size);
      const int error = errors.front();
      errors.pop_front();
      return failing(error);
    };
  }

  std::string contentOf(const std::string& name) const {
    InputReader reader({name}, stop_);
    EXPECT_TRUE(reader.openNext());
    unsigned char buffer[10];
    return std::string(buffer, buffer + reader.fill(buffer, sizeof buffer));
  }

  std::string failureOf(const std::string& name) const {
    try {
      contentOf(name);
    } catch (const Failure& failure) {
      return failure.what();
    }
    return "";
  }

  /// Makes the folder a stream of three bytes.
  void makeStream() const {
    std::ofstream(folder_ / "manifest.json") << korvex::test::goodManifest();
    std::ofstream(folder_ / "data") << "abc";
  }

  /// The reads behind the manifest are these.
  template <typename Read>
  static void behindTheManifest(Read readData) {
    constexpr int kReadsOfAManifest = 2;  // all of it, and its end
    instead.read = [readData, count = 0](int file, void* bytes, std::size_t size) mutable {
      return ++count <= kReadsOfAManifest ? korvex::test::system_calls::read(file, bytes, size)
                                          : readData(file, bytes, size);
    };
  }

  StoredStream checked() const {
    StoredStream stream;
    stream.path = folder_;
    std::atomic<std::uint64_t> bytes{0};
    korvex::tool::StreamCheck(korvex::tool::CheckDepth::Both, stop_, bytes).check(stream);
    return stream;
  }

  void expectDamaged(const std::string& problem) const {
    const StoredStream stream = checked();
    EXPECT_EQ(stream.state, korvex::tool::StreamState::Damaged);
    ASSERT_EQ(stream.problems.size(), 1u);
    EXPECT_EQ(stream.problems[0].what + (": " + stream.problems[0].text), problem);
  }

  StopSignal stop_;
  std::filesystem::path folder_;
  std::string file_;
  std::string pipe_;
  int ends_[2];
};

}  // namespace

TEST_F(InputCalls, ThatAreInterruptedWhileReadingAreMadeAgain) {
  failReads({EINTR, EINTR});
  EXPECT_EQ(contentOf(file_), "abc");
}

TEST_F(InputCalls, ThatFindNothingYetAreMadeAgain) {
  failReads({EAGAIN});
  EXPECT_EQ(contentOf(pipe_), "abc");
}

TEST_F(InputCalls, ThatFailWhileReadingNameTheFile) {
  failReads({EIO});
  EXPECT_EQ(failureOf(file_), "cannot read '" + file_ + "': Input/output error");
}

TEST_F(InputCalls, ThatAreInterruptedWhileOpeningAreMadeAgain) {
  InputReader reader({file_}, stop_);
  int opened = 0;
  instead.open = [&](const char* path) {
    return ++opened < 3 ? failing(EINTR) : korvex::test::system_calls::open(path, 0);
  };
  EXPECT_TRUE(reader.openNext());
  EXPECT_EQ(opened, 3);
}

TEST_F(InputCalls, ThatFailWhileOpeningNameTheFile) {
  InputReader reader({file_}, stop_);
  instead.open = [](const char*) { return failing(EMFILE); };
  EXPECT_THROW(reader.openNext(), Failure);
}

TEST_F(InputCalls, ThatAreInterruptedWhileWaitingAreMadeAgain) {
  instead.poll = [count = 0](pollfd* files, nfds_t number, int milliseconds) mutable {
    return ++count < 3 ? failing(EINTR)
                       : korvex::test::system_calls::poll(files, number, milliseconds);
  };
  EXPECT_EQ(contentOf(pipe_), "abc");
}

TEST_F(InputCalls, ThatFailWhileWaitingNameTheFile) {
  instead.poll = [](pollfd*, nfds_t, int) { return failing(ENOMEM); };
  EXPECT_EQ(failureOf(pipe_), "cannot read '" + pipe_ + "': Cannot allocate memory");
}

TEST_F(InputCalls, ThatFailInAManifestDamageTheStream) {
  makeStream();
  failReads({EINTR, EIO});
  expectDamaged("manifest: Input/output error");
}

TEST_F(InputCalls, ThatFailInTheDataDamageTheStream) {
  makeStream();
  behindTheManifest([error = EINTR](int, void*, std::size_t) mutable -> ssize_t {
    return failing(std::exchange(error, EIO));
  });
  expectDamaged("data: Input/output error");
}

TEST_F(InputCalls, ThatFindMoreAndMoreDataEnd) {
  makeStream();
  behindTheManifest([](int, void* bytes, std::size_t) -> ssize_t {
    *static_cast<char*>(bytes) = 'x';
    return 1;
  });
  const StoredStream stream = checked();
  EXPECT_EQ(stream.bytes, 4u);
  ASSERT_EQ(stream.problems.size(), 3u);
  EXPECT_EQ(stream.problems[0].text, "found 4 bytes, expected 3 bytes");
}

TEST_F(InputCalls, ThatShortenAReadAreMadeAgain) {
  instead.read = [](int file, void* bytes, std::size_t size) {
    return korvex::test::system_calls::read(file, bytes, size == 0 ? 0 : 1);
  };
  EXPECT_EQ(contentOf(file_), "abc");
}
