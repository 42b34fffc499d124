#include <gtest/gtest.h>
#include <string>
#include <sys/stat.h>

#include "integration/StrangeObjects.h"
#include "integration/WriterStory.h"
#include "support/Child.h"
#include "support/DaemonQueues.h"
#include "support/Late.h"

using korvex::test::RawQueue;
using korvex::test::uniqueQueueName;
using korvex::test::strange::Holder;
using korvex::test::strange::Kind;

namespace {

/// A queue that nothing is wrong with, open to every user.
class SoundQueue {
 public:
  explicit SoundQueue(const std::string& name,
                      std::size_t messageSize = korvex::test::strange::kMessageSize)
      : queue_(name, 8, messageSize) {
    ::chmod(("/dev/shm/" + name).c_str(), 0666);
  }

 private:
  RawQueue queue_;
};

class StrangeObjectForWriter : public testing::TestWithParam<Kind> {
 protected:
  void SetUp() override {
    const std::string obstacle = GetParam().obstacle();
    if (!obstacle.empty()) GTEST_SKIP() << obstacle;
  }

  /// The story of a writer that meets the object under one name and a sound queue under the other.
  std::string storyWith(const std::string& place, const std::string& other) const {
    const auto tell = [&] {
      const SoundQueue sound(other);
      const Holder object = GetParam().place(place);
      return korvex::test::resultOfChild([this] {
        if (GetParam().actor == korvex::test::strange::Actor::Unprivileged)
          korvex::test::dropPrivileges();
        return WriterStory(name_).whole();
      });
    };
    return korvex::test::againWhenLate(tell, WriterStory::hasLateCall);
  }

  const std::string name_ = uniqueQueueName("strange");
  const std::string responseName_ = name_ + "Response";
};

}  // namespace

TEST(StrangeObjects, AreAtLeastFortyKinds) {
  EXPECT_GE(korvex::test::strange::kinds().size(), 40u);
}

TEST_P(StrangeObjectForWriter, InPlaceOfTheSendQueue) {
  EXPECT_EQ(storyWith(name_, responseName_), GetParam().asSendQueue);
}

TEST_P(StrangeObjectForWriter, InPlaceOfTheResponseQueue) {
  EXPECT_EQ(storyWith(responseName_, name_), GetParam().asResponseQueue);
}

INSTANTIATE_TEST_SUITE_P(Kinds, StrangeObjectForWriter,
                         testing::ValuesIn(korvex::test::strange::kinds()),
                         [](const auto& kind) { return std::string(kind.param.name); });

// Its batches then go where the replies belong, and are as large as a reply.
TEST(StrangePair, WithItsNamesSwapped) {
  const auto tell = [] {
    const std::string name = uniqueQueueName("strange");
    const SoundQueue replies(name, korvex::test::strange::kMessageSize);
    const SoundQueue batches(name + "Response", 4096);
    return korvex::test::resultOfChild([&] { return WriterStory(name).whole(); });
  };
  EXPECT_EQ(korvex::test::againWhenLate(tell, WriterStory::hasLateCall),
            "open: boost::interprocess_exception::library_error");
}
