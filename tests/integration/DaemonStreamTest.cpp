#include <future>
#include <gmock/gmock.h>
#include <random>

#include "integration/DaemonFixture.h"
#include "korvex/Status.h"
#include "queue/MessageQueue.h"
#include "support/LockHolder.h"
#include "support/ThrownError.h"
#include "support/WireFormat.h"

using korvex::test::BatchBytes;
using korvex::test::Bytes;
using korvex::test::contentsOf;
using korvex::test::eventually;
using korvex::test::namesIn;
using testing::ElementsAre;
using testing::HasSubstr;

namespace {

/// What arrives, and what the producer hears of it.
class DaemonStream : public DaemonFixture {
 protected:
  /// Sends a message that no writer would.
  void sendRaw(const Bytes& bytes) const {
    korvex::MessageQueue queue(queue_, korvex::MessageQueue::Clock::now());
    const auto deadline = korvex::MessageQueue::Clock::now() + korvex::test::kPatience;
    ASSERT_TRUE(queue.sendBefore(bytes.data(), bytes.size(), 1, deadline));
  }

  static std::string someBytes(std::size_t size, unsigned seed) {
    std::mt19937 random(seed);
    std::string bytes(size, '\0');
    for (char& byte : bytes) byte = static_cast<char>(random());
    return bytes;
  }

  nlohmann::json stats() const { return nlohmann::json::parse(contentsOf(statsFile_)); }

  bool awaitCount(const char* name, int value) const {
    return eventually([&] { return stats()["total"][name] == value; });
  }

  std::string statsFile_ = folder_ / "stats";
};

}  // namespace

TEST_F(DaemonStream, ArrivesByteByByte) {
  const auto daemon = start();
  std::string sent;
  const auto to = writer();
  to->open();
  for (const std::size_t size : {1u, 131072u, 100u, 70000u, 131071u, 5u}) {
    const std::string piece = someBytes(size, static_cast<unsigned>(size));
    write(*to, piece);
    sent += piece;
  }
  to->close();
  EXPECT_THAT(awaitReply(*to).message, HasSubstr("stored bytes=332249 xxh128="));
  ASSERT_EQ(streams(false).size(), 1u);
  EXPECT_TRUE(dataOf(streams(false)[0]) == sent);
  end(*daemon);
}

TEST_F(DaemonStream, IsDescribedByItsManifest) {
  const auto daemon = start();
  EXPECT_EQ(stream("abc"), "stored bytes=3 xxh128=06b05ab6733a618578af5f94892f3950");
  ASSERT_EQ(streams(false).size(), 1u);
  const auto manifest = manifestOf(streams(false)[0]);
  EXPECT_EQ(manifest["queue"], queue_);
  EXPECT_EQ(manifest["state"], "complete");
  EXPECT_EQ(manifest["bytes"], 3);
  EXPECT_EQ(manifest["segments"], 1);
  EXPECT_EQ(manifest["records"], 4);
  EXPECT_EQ(manifest["sha256"], "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
  EXPECT_EQ(manifest["xxh128"], "06b05ab6733a618578af5f94892f3950");
  end(*daemon);
}

TEST_F(DaemonStream, IsAcknowledgedWhenItIsDiscarded) {
  Process daemon({KORVEXD_PROGRAM, "--queue", queue_, "--discard"});
  ASSERT_TRUE(awaitServing(daemon));
  EXPECT_EQ(stream("abc"), "stored bytes=3 xxh128=06b05ab6733a618578af5f94892f3950");
  end(daemon);
}

TEST_F(DaemonStream, RunsOnSeveralQueuesAtOnce) {
  const std::string second = korvex::test::uniqueQueueName();
  const korvex::test::QueueRemover remover(second);
  const auto daemon = start({"--queue", second});
  ASSERT_TRUE(awaitLog(*daemon, "serving " + second));
  auto other = std::async(std::launch::async, [&] { return stream(second, someBytes(90000, 1)); });
  EXPECT_THAT(stream(someBytes(80000, 2)), HasSubstr("stored bytes=80000 "));
  EXPECT_THAT(other.get(), HasSubstr("stored bytes=90000 "));
  EXPECT_EQ(streams(false).size(), 2u);
  end(*daemon);
}

TEST_F(DaemonStream, FollowsAnotherOverTheSameWriter) {
  const auto daemon = start();
  const auto to = writer();
  for (const char* text : {"first", "second"}) {
    to->open();
    write(*to, text);
    to->close();
  }
  ASSERT_TRUE(eventually([&] { return streams(false).size() == 2; }));
  EXPECT_EQ(dataOf(streams(false)[0]), "first");
  EXPECT_EQ(dataOf(streams(false)[1]), "second");
  end(*daemon);
}

TEST_F(DaemonStream, IsIncompleteWhenTheProducerStops) {
  const auto daemon = start();
  const auto to = writer();
  to->open();
  write(*to, "abc");
  to->stop(false);
  ASSERT_TRUE(awaitLog(*daemon, "stream incomplete"));
  ASSERT_EQ(streams(true).size(), 1u);
  EXPECT_EQ(manifestOf(streams(true)[0])["reason"], "stopped by the producer");
  end(*daemon);
}

TEST_F(DaemonStream, IsIncompleteWhenTheDaemonEnds) {
  const auto daemon = start({"--stats", statsFile_});
  const auto to = writer();
  to->open();
  write(*to, "abc");
  to->flush_shm_buffer(kTimeout);
  ASSERT_TRUE(awaitCount("bytes", 3));
  end(*daemon);
  ASSERT_EQ(streams(true).size(), 1u);
  EXPECT_EQ(manifestOf(streams(true)[0])["reason"], "the daemon ended");
  EXPECT_EQ(dataOf(streams(true)[0]), "abc");
  EXPECT_EQ(stats()["total"]["streams_incomplete"], 1);
}

TEST_F(DaemonStream, IsCompleteWhenItsCloseWasQueuedInTime) {
  const auto daemon = start({"--max-messages", "64", "--max-message-size", "1M"});
  daemon->freeze();
  const auto to = writer();
  to->open();
  for (int i = 0; i < 60; ++i) {
    write(*to, std::string(100000, 'x'));
    to->flush_shm_buffer(kTimeout);
  }
  to->close();
  daemon->signal(SIGTERM);
  daemon->signal(SIGCONT);
  EXPECT_EQ(daemon->wait(), 0);
  EXPECT_THAT(awaitReply(*to).message, HasSubstr("stored bytes=6000000 "));
  EXPECT_EQ(streams(false).size(), 1u) << daemon->errors();
}

// Its messages are lost with the queue, so the log must say so.
TEST_F(DaemonStream, IsReportedWhenTheEndingDaemonCannotTakeIt) {
  const auto daemon = start();
  daemon->freeze();
  sendRaw(BatchBytes().record(0, 0).bytes());
  const korvex::test::LockHolder holder(queue_);
  daemon->signal(SIGTERM);
  daemon->signal(SIGCONT);
  EXPECT_EQ(daemon->wait(), 0);
  EXPECT_THAT(daemon->errors(), HasSubstr(queue_ + ": messages lost with the queue: 1"));
}

TEST_F(DaemonStream, IsIncompleteWhenItsQueuesAreLost) {
  const auto daemon = start({"--stats", statsFile_});
  const auto to = writer();
  to->open();
  write(*to, "abc");
  to->flush_shm_buffer(kTimeout);
  ASSERT_TRUE(awaitCount("bytes", 3));
  ASSERT_TRUE(korvex::MessageQueue::remove(queue_));
  ASSERT_TRUE(awaitLog(*daemon, queue_ + ": served again"));
  ASSERT_EQ(streams(true).size(), 1u);
  EXPECT_EQ(manifestOf(streams(true)[0])["reason"],
            "its queues were lost: they were removed or replaced");
  EXPECT_TRUE(awaitCount("streams_incomplete", 1));
  EXPECT_EQ(stream("abc"), "stored bytes=3 xxh128=06b05ab6733a618578af5f94892f3950");
  end(*daemon);
}

TEST_F(DaemonStream, LeavesNoDescriptorOpen) {
  const auto daemon = start();
  const std::string descriptors = "/proc/" + std::to_string(daemon->id()) + "/fd";
  stream("abc");
  const auto before = namesIn(descriptors);
  for (int i = 0; i < 5; ++i) {
    const auto to = writer();
    to->open();
    write(*to, "incomplete");
    to->stop(false);
    stream("complete");
  }
  EXPECT_EQ(namesIn(descriptors), before);
  end(*daemon);
}

TEST_F(DaemonStream, FailsInTheProducerWhenABatchIsDamaged) {
  const auto daemon = start();
  const auto to = writer();
  to->open();
  sendRaw(BatchBytes().record(1, 2, "abc").set32(52, 0).bytes());
  const auto reply = awaitReply(*to);
  EXPECT_EQ(reply.status, korvex::kStatusCorrupt);
  EXPECT_EQ(std::string(reply.message),
            "damaged batch: wrong header magic at offset 8: found 0x00000000, expected 0xaabbccdd");
  EXPECT_NO_THROW(to->close());
  EXPECT_THAT(stream("abc"), HasSubstr("stored bytes=3")) << "the next stream is served";
  EXPECT_EQ(streams(true).size(), 1u);
  end(*daemon);
}

TEST_F(DaemonStream, FailsInTheProducerWhenRecordsAreReordered) {
  const auto daemon = start();
  const auto to = writer();
  to->open();
  sendRaw(BatchBytes().record(1, 0, "abc").bytes());
  const auto reply = awaitReply(*to);
  EXPECT_EQ(reply.status, korvex::kStatusCorrupt);
  EXPECT_STREQ(reply.message, "record type 1 sequence 0: expected a sequence above 0");
  end(*daemon);
}

TEST_F(DaemonStream, FailsInTheProducerWhenItCannotBeStored) {
  const auto daemon = start();
  std::filesystem::remove_all(output_);
  const auto to = writer();
  to->open();
  const auto reply = awaitReply(*to);
  EXPECT_EQ(reply.status, 5u);
  EXPECT_EQ(std::string(reply.message),
            "opening output folder " + output_ + ": error 2 (No such file or directory)");
  std::filesystem::create_directory(output_);
  EXPECT_THAT(stream("abc"), HasSubstr("stored bytes=3")) << "there is a new folder";
  end(*daemon);
}

TEST_F(DaemonStream, HearsNothingOfAnEarlierProducersReplies) {
  const auto daemon = start({"--stats", statsFile_});
  sendRaw(Bytes(30, 7));
  sendRaw(Bytes(30, 7));
  ASSERT_TRUE(awaitCount("replies_sent", 2));
  {
    const korvex::MessageQueue replies(queue_ + "Response", korvex::MessageQueue::Clock::now());
    ASSERT_EQ(replies.view().messages(), 2u);
  }
  sendRaw(BatchBytes().record(0, 0).bytes());
  ASSERT_TRUE(awaitCount("replies_withdrawn", 2));
  end(*daemon);
}

TEST_F(DaemonStream, IsServedThoughTheResponseQueueIsFull) {
  const auto daemon = start({"--stats", statsFile_});
  for (int i = 0; i < 30; ++i) sendRaw(Bytes(9, 0));
  ASSERT_TRUE(awaitCount("bad_batches", 30));
  EXPECT_EQ(stats()["total"]["replies_pending"], 4);
  EXPECT_EQ(stats()["total"]["replies_lost"], 10);
  sendRaw(BatchBytes().record(0, 0).bytes());
  ASSERT_TRUE(awaitCount("replies_withdrawn", 20));
  EXPECT_EQ(stream("abc"), "stored bytes=3 xxh128=06b05ab6733a618578af5f94892f3950");
  end(*daemon);
}

TEST_F(DaemonStream, IsCapturedMessageByMessage) {
  const std::string capture = folder_.makeFolder("cap");
  const auto daemon = start({"--capture", capture});
  const Bytes sound = BatchBytes().record(0, 0).bytes();
  const Bytes bad(13, 0xee);
  sendRaw(sound);
  sendRaw(bad);
  ASSERT_TRUE(awaitLog(*daemon, "batch 2 is damaged"));
  EXPECT_THAT(namesIn(capture),
              ElementsAre(queue_ + "-00000001.batch", queue_ + "-00000002.batch"));
  EXPECT_EQ(contentsOf(capture + "/" + queue_ + "-00000001.batch"),
            std::string(sound.begin(), sound.end()));
  EXPECT_EQ(contentsOf(capture + "/" + queue_ + "-00000002.batch"),
            std::string(bad.begin(), bad.end()));
  end(*daemon);
}

TEST_F(DaemonStream, IsCounted) {
  const auto daemon = start({"--stats", statsFile_});
  stream("abc");
  sendRaw(Bytes(3, 0));
  ASSERT_TRUE(awaitCount("bad_batches", 1));
  end(*daemon);
  const auto total = stats()["total"];
  EXPECT_EQ(total["streams_opened"], 1);
  EXPECT_EQ(total["streams_complete"], 1);
  EXPECT_EQ(total["records"], 4);
  EXPECT_EQ(total["bytes"], 3);
  EXPECT_EQ(total["replies_sent"], 2);
  EXPECT_EQ(stats()["queues"][queue_]["bytes"], 3);
}

// What the first producer still has to send, its close too, must not be taken for the second's.
TEST_F(DaemonStream, IsNeverMadeOfAnotherProducersTail) {
  const auto daemon = start();
  const auto first = writer();
  first->open();
  for (int i = 0; i < 10; ++i) write(*first, "first");
  first->flush_shm_buffer(kTimeout);
  const auto second = writer();
  second->open();
  write(*first, "tail");
  thrownBy([&] { first->close(); });  // it may meet the reply already
  EXPECT_THAT(awaitReply(*first).message, HasSubstr("expected sequence 2; two producers"));
  EXPECT_TRUE(streams(false).empty());
  end(*daemon);
}
