#include <functional>
#include <gmock/gmock.h>
#include <new>

#include "korvex/Status.h"
#include "korvex/receiver/SystemError.h"
#include "stream/StreamSession.h"
#include "support/WireFormat.h"

using korvex::receiver::Count;
using korvex::receiver::Ending;
using korvex::receiver::Record;
using korvex::receiver::Reply;
using korvex::receiver::Sink;
using korvex::receiver::StreamSession;
using korvex::receiver::StreamSummary;
using korvex::test::kClose;
using korvex::test::kData;
using korvex::test::kOpen;
using korvex::test::kSegmentEnd;
using korvex::test::kStop;
using testing::HasSubstr;

namespace {

/// What became of one stream's sink.
struct Fate {
  std::string data;
  int writes = 0;
  bool complete = false;
  std::string reason;  ///< of an abandoned one
  StreamSummary summary = {};
  bool isGone = false;
  bool mayGoOn = true;  ///< as the one who completes it says
};

class RecordingSink : public Sink {
 public:
  RecordingSink(Fate& fate, const int& failing) : fate_(fate), failing_(failing) {}
  ~RecordingSink() override { fate_.isGone = true; }

  void write(const unsigned char* data, std::size_t size) override {
    failOn(1, "writing data");
    fate_.data.append(data, data + size);
    ++fate_.writes;
  }
  void check() override { failOn(5, "asking the engine"); }
  void complete(const StreamSummary& summary,
                const korvex::receiver::StillFinishing& stillFinishing) override {
    failOn(2, "syncing data");
    fate_.mayGoOn = stillFinishing();
    fate_.complete = true;
    fate_.summary = summary;
  }
  void abandon(const StreamSummary& summary, const std::string& reason) override {
    fate_.reason = reason;
    fate_.summary = summary;
    failOn(3, "writing manifest");
  }
  std::string place() const override {
    failOn(6, "finding the place");
    return "here";
  }

 private:
  void failOn(int step, const char* doing) const {
    if (failing_ == step) throw korvex::receiver::SystemError(doing, ENOSPC);
  }

  Fate& fate_;
  const int& failing_;
};

/// Hears what becomes of streams.
class StreamObserver : public korvex::receiver::Observer {
 public:
  void streamOpened(const std::string& place) noexcept override { places_.push_back(place); }
  void streamComplete(const StreamSummary& summary, const std::string&) noexcept override {
    endings_.push_back(summary.ending);
  }
  void streamIncomplete(const StreamSummary& summary, const std::string&,
                        const std::string&) noexcept override {
    endings_.push_back(summary.ending);
  }

  std::vector<std::string> places_;
  std::vector<Ending> endings_;
};

class StreamSessionTest : public testing::Test {
 protected:
  StreamSession::Answer take(std::uint32_t type, std::uint64_t sequence,
                             const std::string& data = "") {
    return session_.take(recordOf(type, sequence, data));
  }

  static Record recordOf(std::uint32_t type, std::uint64_t sequence, const std::string& data) {
    return {type, static_cast<std::uint32_t>(data.size()), sequence,
            reinterpret_cast<const unsigned char*>(data.data())};
  }

  bool gather(std::uint64_t sequence, const std::string& data, std::uint32_t type = kData) {
    return session_.gather(recordOf(type, sequence, data));
  }

  std::unique_ptr<Sink> openSink() {
    if (failing_ == 7) return nullptr;
    if (failing_ == 8) throw std::bad_alloc();
    if (failing_ == 4) throw korvex::receiver::SystemError("creating stream folder", EACCES);
    fates_.push_back(std::make_unique<Fate>());
    return std::make_unique<RecordingSink>(*fates_.back(), failing_);
  }

  const Fate& fate(std::size_t stream = 0) const { return *fates_.at(stream); }

  void expectFailure(const StreamSession::Answer& answer, ov_status_t status,
                     const std::string& text) {
    ASSERT_TRUE(answer.has_value());
    EXPECT_EQ(answer->status, status);
    EXPECT_EQ(std::string(answer->message), text);
  }

  std::uint64_t count(Count which) const { return stats_.get(which); }

  // The step that fails: 1 write, 2 complete, 3 abandon, 4 open, 5 check, 6 place, 7 open with
  // none.
  int failing_ = 0;
  bool isDaemonEnding_ = false;
  std::vector<std::unique_ptr<Fate>> fates_;
  korvex::receiver::Counters stats_;
  StreamObserver observer_;
  StreamSession session_{"q", [this](const std::string&, std::time_t) { return openSink(); },
                         stats_, observer_, [this] { return !isDaemonEnding_; }};
};

}  // namespace

TEST_F(StreamSessionTest, TellsItsObserverOfStreamsThatHaveASink) {
  take(kOpen, 1);
  EXPECT_THAT(observer_.places_, testing::ElementsAre("here"));
  failing_ = 4;
  take(kOpen, 1);
  EXPECT_EQ(observer_.places_.size(), 1u);
}

TEST_F(StreamSessionTest, HandsDataOnInOrderAndAnswersTheClose) {
  EXPECT_FALSE(take(kOpen, 0));
  EXPECT_FALSE(take(kData, 2, "ab"));
  EXPECT_FALSE(take(kSegmentEnd, 3));
  EXPECT_FALSE(take(kData, 4, "c"));
  const auto answer = take(kClose, 5);
  EXPECT_EQ(fate().data, "abc");
  EXPECT_TRUE(fate().complete && fate().isGone);
  ASSERT_TRUE(answer.has_value());
  EXPECT_EQ(answer->status, 0u);
  // XXH3, 128 bits, of "abc"; from the algorithm's reference program.
  EXPECT_STREQ(answer->message, "stored bytes=3 xxh128=06b05ab6733a618578af5f94892f3950");
}

TEST_F(StreamSessionTest, TellsTheSinkWhatTheStreamWas) {
  take(kOpen, 0);
  take(kData, 2, "ab");
  take(kData, 3, "c");
  take(kSegmentEnd, 4);
  take(kSegmentEnd, 5);
  take(kData, 6, "d");
  take(kClose, 7);
  EXPECT_EQ(fate().summary.queue, "q");
  EXPECT_EQ(fate().summary.bytes, 4u);
  EXPECT_EQ(fate().summary.segments, 2u) << "one ended by a record, one by the close, one empty";
  EXPECT_EQ(fate().summary.records, 7u);
  EXPECT_GE(fate().summary.closed, fate().summary.opened);
}

TEST_F(StreamSessionTest, PassesGatheredRecordsOnAtOnce) {
  take(kOpen, 0);
  take(kData, 2, "a");
  EXPECT_TRUE(gather(3, "b") && gather(4, "") && gather(5, "c"));
  EXPECT_EQ(fate().data, "a");
  EXPECT_FALSE(session_.flush());
  EXPECT_FALSE(session_.flush()) << "nothing is left";
  EXPECT_EQ(fate().data, "abc");
  EXPECT_EQ(fate().writes, 2);
  EXPECT_STREQ(take(kClose, 6)->message, "stored bytes=3 xxh128=06b05ab6733a618578af5f94892f3950");
  EXPECT_EQ(fate().summary.records, 6u);
  EXPECT_EQ(count(Count::Records), 6u);
  EXPECT_EQ(count(Count::Bytes), 3u);
}

TEST_F(StreamSessionTest, GathersOnlyWhatContinuesASegment) {
  EXPECT_FALSE(gather(0, "a")) << "no stream";
  take(kOpen, 0);
  EXPECT_FALSE(gather(1, "a")) << "a segment's first";
  take(kData, 2, "a");
  EXPECT_FALSE(gather(2, "a") || gather(4, "a") || gather(1, "a")) << "not the next number";
  EXPECT_FALSE(gather(3, "", kSegmentEnd) || gather(3, "", kClose)) << "no data";
  EXPECT_FALSE(gather(3, std::string(513, 'a'))) << "long";
  take(kSegmentEnd, 3);
  EXPECT_FALSE(gather(4, "a")) << "another segment's first";
  take(kData, 18446744073709551615u, "a");
  EXPECT_FALSE(gather(0, "a")) << "the numbers have ended";
}

TEST_F(StreamSessionTest, GathersNoMoreThanThereIsRoomFor) {
  take(kOpen, 0);
  take(kData, 2, "a");
  const std::string block(512, 'b');
  std::uint64_t sequence = 3;
  while (gather(sequence, block)) ++sequence;
  EXPECT_EQ(sequence, 3u + 128);
  session_.flush();
  EXPECT_EQ(fate().data.size(), 1 + 128 * block.size());
  EXPECT_TRUE(gather(sequence, block));
  session_.flush();
}

TEST_F(StreamSessionTest, ReportsASinkThatRefusesGatheredRecordsOnce) {
  take(kOpen, 0);
  take(kData, 2, "a");
  gather(3, "b");
  gather(4, "c");
  failing_ = 1;
  expectFailure(session_.flush(), 5, "writing data: error 28 (No space left on device)");
  EXPECT_FALSE(gather(5, "d")) << "the stream has failed";
  EXPECT_FALSE(take(kData, 5, "d"));
  EXPECT_FALSE(session_.flush());
  EXPECT_EQ(count(Count::Bytes), 1u);
  EXPECT_EQ(count(Count::Records), 5u);
}

TEST_F(StreamSessionTest, StoresAStreamWithoutData) {
  take(kOpen, 0);
  const auto answer = take(kClose, 2);
  ASSERT_TRUE(answer.has_value());
  EXPECT_STREQ(answer->message, "stored bytes=0 xxh128=99aa06d3014798d86001c324468d497f");
}

TEST_F(StreamSessionTest, StartsTheDigestAnewForEachStream) {
  take(kOpen, 0);
  take(kData, 2, "other");
  take(kClose, 3);
  take(kOpen, 0);
  take(kData, 2, "abc");
  EXPECT_STREQ(take(kClose, 3)->message, "stored bytes=3 xxh128=06b05ab6733a618578af5f94892f3950");
  EXPECT_EQ(count(Count::StreamsComplete), 2u);
}

TEST_F(StreamSessionTest, AcceptsGapsInTheSequence) {
  take(kOpen, 0);
  take(kData, 1000000000000, "a");
  take(kSegmentEnd, 18446744073709551614u);
  EXPECT_EQ(take(kClose, 18446744073709551615u)->status, 0u);
}

TEST_F(StreamSessionTest, RefusesACloseWithoutTheRecordBeforeIt) {
  take(kOpen, 0);
  take(kData, 2, "a");
  expectFailure(take(kClose, 4), 32,
                "record type 3 sequence 4: expected sequence 3; the last record before the close "
                "is missing");
  EXPECT_FALSE(fate().complete);
  take(kOpen, 0);
  expectFailure(take(kClose, 3), 32,
                "record type 3 sequence 3: expected sequence 2; the last record before the close "
                "is missing");
}

TEST_F(StreamSessionTest, RefusesASequenceThatStandsStill) {
  take(kOpen, 0);
  take(kData, 2, "a");
  expectFailure(take(kData, 2, "b"), 32, "record type 1 sequence 2: expected a sequence above 2");
  EXPECT_EQ(fate().data, "a");
  EXPECT_EQ(fate().reason, "record type 1 sequence 2: expected a sequence above 2");
}

TEST_F(StreamSessionTest, RefusesASequenceThatGoesBack) {
  take(kOpen, 0);
  take(kData, 9, "a");
  expectFailure(take(kClose, 8), 32, "record type 3 sequence 8: expected a sequence above 9");
}

TEST_F(StreamSessionTest, RefusesTheOpenRecordsOwnNumber) {
  take(kOpen, 5);
  expectFailure(take(kData, 5, "b"), 32, "record type 1 sequence 5: expected a sequence above 5");
}

TEST_F(StreamSessionTest, RefusesUnknownTypes) {
  take(kOpen, 0);
  expectFailure(take(5, 2), 32, "record type 5 sequence 2: unknown type, expected 0 to 4");
  take(kOpen, 0);
  EXPECT_EQ(take(4294967295, 2)->status, korvex::kStatusCorrupt);
}

TEST_F(StreamSessionTest, RefusesDataOnRecordsThatCarryNone) {
  for (const std::uint32_t type : {kSegmentEnd, kClose, kStop}) {
    take(kOpen, 0);
    expectFailure(
        take(type, 2, "abc"), 32,
        "record type " + std::to_string(type) + " sequence 2: found 3 data bytes, expected none");
  }
  EXPECT_EQ(count(Count::StreamsIncomplete), 3u);
  EXPECT_EQ(take(kOpen, 0, "x")->status, korvex::kStatusCorrupt);
  EXPECT_EQ(fates_.size(), 3u) << "a refused open opens nothing";
}

TEST_F(StreamSessionTest, RefusesRecordsOutsideOfAStream) {
  for (const std::uint32_t type : {kData, kSegmentEnd, kClose}) {
    take(kOpen, 0);
    take(kClose, 2);
    expectFailure(
        take(type, 2), 32,
        "record type " + std::to_string(type) + " sequence 2: no stream is open, expected type 0");
  }
}

TEST_F(StreamSessionTest, RefusesDataThatWouldBeLostAfterTheClose) {
  for (const std::uint32_t type : {kClose, kStop}) {
    take(kOpen, 0);
    take(kClose, 2);
    expectFailure(
        take(type, 3, "abc"), 32,
        "record type " + std::to_string(type) + " sequence 3: found 3 data bytes, expected none");
  }
  EXPECT_EQ(count(Count::DroppedRecords), 2u);
}

TEST_F(StreamSessionTest, AnswersAFailedStreamOnce) {
  take(kOpen, 0);
  EXPECT_TRUE(take(kData, 0, "a"));
  EXPECT_FALSE(take(kData, 0, "b"));
  EXPECT_FALSE(take(77, 0));
  EXPECT_FALSE(take(kClose, 5)) << "no receipt for a failed stream";
  EXPECT_EQ(count(Count::DroppedRecords), 3u);
  EXPECT_EQ(count(Count::StreamsIncomplete), 1u);
  EXPECT_FALSE(fate().complete);
}

TEST_F(StreamSessionTest, ServesTheNextStreamAfterAFailedOne) {
  take(kOpen, 0);
  take(kData, 0, "a");
  take(kOpen, 0);
  take(kData, 2, "b");
  EXPECT_EQ(take(kClose, 3)->status, 0u);
  EXPECT_EQ(fate(1).data, "b");
}

TEST_F(StreamSessionTest, NeverCompletesAStreamThatMissesABatch) {
  take(kOpen, 0);
  take(kData, 2, "a");
  expectFailure(session_.takeDamage("wrong header magic at offset 8"), 32,
                "damaged batch: wrong header magic at offset 8");
  EXPECT_FALSE(session_.takeDamage("once more"));
  take(kData, 3, "b");
  EXPECT_FALSE(take(kClose, 4));
  EXPECT_FALSE(fate().complete);
  EXPECT_EQ(fate().reason, "damaged batch: wrong header magic at offset 8");
}

TEST_F(StreamSessionTest, AnswersADamagedBatchBetweenStreams) {
  EXPECT_EQ(session_.takeDamage("x")->status, korvex::kStatusCorrupt);
  EXPECT_EQ(session_.takeDamage("x")->status, korvex::kStatusCorrupt);
  take(kOpen, 0);
  EXPECT_EQ(take(kClose, 2)->status, 0u);
}

TEST_F(StreamSessionTest, ANewOpenEndsTheOldStreamSilently) {
  take(kOpen, 0);
  take(kData, 2, "a");
  EXPECT_FALSE(take(kOpen, 0)) << "the reply would reach the new producer";
  EXPECT_FALSE(fate().complete);
  EXPECT_EQ(fate().reason, "a new stream was opened before its close");
  take(kData, 2, "b");
  EXPECT_EQ(take(kClose, 3)->status, 0u);
  EXPECT_EQ(fate(1).data, "b");
}

TEST_F(StreamSessionTest, OnlyStreamsThatCutAnotherOffAllowNoGaps) {
  take(kOpen, 0);
  take(kOpen, 0);
  EXPECT_EQ(take(kClose, 2)->status, 0u);
  take(kOpen, 0);
  EXPECT_FALSE(take(kData, 7, "a"));
  EXPECT_EQ(take(kClose, 8)->status, 0u);
  take(kOpen, 0);
  take(kOpen, 0);
  expectFailure(take(kData, 7, "a"), 32,
                "record type 1 sequence 7: expected sequence 2; two producers on one queue?");
}

TEST_F(StreamSessionTest, CountsEachStreamForItself) {
  take(kOpen, 0);
  take(kData, 2, "abc");
  take(kClose, 3);
  take(kOpen, 0);
  take(kClose, 2);
  EXPECT_EQ(fate(1).summary.bytes, 0u);
  EXPECT_EQ(fate(1).summary.segments, 0u);
  EXPECT_EQ(fate(1).summary.records, 2u);
  take(kOpen, 0);
  take(kData, 2, "abc");
  session_.end(Ending::ReceiverEnded, "cut off in a segment");
  take(kOpen, 0);
  take(kClose, 2);
  EXPECT_EQ(fate(3).summary.segments, 0u);
}

TEST_F(StreamSessionTest, AStopLeavesTheStreamIncompleteWithoutReply) {
  take(kOpen, 0);
  take(kData, 2, "a");
  EXPECT_FALSE(take(kStop, 3));
  EXPECT_EQ(fate().reason, "stopped by the producer");
  EXPECT_FALSE(take(kClose, 4)) << "a writer that stopped still closes when it goes";
}

TEST_F(StreamSessionTest, AStopWithoutStreamIsFine) {
  EXPECT_FALSE(take(kStop, 1));
  EXPECT_FALSE(take(kStop, 2));
  EXPECT_EQ(count(Count::StreamsIncomplete), 0u);
}

TEST_F(StreamSessionTest, AWriterMayCloseAgainAfterAFailedClose) {
  for (const int failing : {2, 4}) {
    failing_ = failing;
    take(kOpen, 0);
    take(kClose, 2);
    for (const std::uint64_t sequence : {3u, 4u, 6u}) {
      EXPECT_FALSE(take(kClose, sequence)) << "the reply would reach the next producer";
    }
    failing_ = 0;
    take(kOpen, 0);
    EXPECT_EQ(take(kClose, 2)->status, 0u);
  }
}

TEST_F(StreamSessionTest, AWriterMayCloseAgainAfterAForeignReply) {
  take(kOpen, 0);
  EXPECT_EQ(take(kClose, 2)->status, 0u);
  EXPECT_FALSE(take(kClose, 3));
}

TEST_F(StreamSessionTest, AStoppedWriterMayCloseRepeatedly) {
  take(kOpen, 0);
  take(kStop, 2);
  for (const std::uint64_t sequence : {3u, 4u, 5u}) EXPECT_FALSE(take(kClose, sequence));
  EXPECT_FALSE(take(kStop, 6));
  EXPECT_FALSE(take(kClose, 7));
}

TEST_F(StreamSessionTest, RefusesAnotherCloseThatIsAnotherProducers) {
  take(kOpen, 0);
  take(kClose, 2);
  EXPECT_FALSE(take(kClose, 3));
  expectFailure(take(kClose, 3), 32,
                "record type 3 sequence 3: no stream is open, expected type 0");
}

// Nothing in a record tells whose it is. The receipt does: its digest fits neither producer.
TEST_F(StreamSessionTest, CannotTellProducersApartWhoseNumbersFit) {
  take(kOpen, 0);
  take(kData, 2, "AAAA");
  take(kOpen, 0);
  take(kData, 2, "BBBB");
  take(kData, 3, "aaaa");
  EXPECT_EQ(take(kClose, 4)->status, 0u);
  EXPECT_EQ(fate(1).data, "BBBBaaaa");
}

TEST_F(StreamSessionTest, TellsWhatASinkFailedOn) {
  take(kOpen, 0);
  failing_ = 1;
  expectFailure(take(kData, 2, "a"), 5, "writing data: error 28 (No space left on device)");
  EXPECT_EQ(fate().reason, "writing data: error 28 (No space left on device)");
  EXPECT_TRUE(fate().isGone);
  EXPECT_EQ(count(Count::Bytes), 0u);
}

TEST_F(StreamSessionTest, SendsNoReceiptWhenTheSinkCannotFinish) {
  take(kOpen, 0);
  failing_ = 2;
  expectFailure(take(kClose, 2), 5, "syncing data: error 28 (No space left on device)");
  EXPECT_EQ(count(Count::StreamsComplete), 0u);
  EXPECT_EQ(count(Count::StreamsIncomplete), 1u);
  failing_ = 0;
  take(kOpen, 0);
  EXPECT_EQ(take(kClose, 2)->status, 0u);
}

TEST_F(StreamSessionTest, TellsWhenNoSinkCanBeOpened) {
  failing_ = 4;
  expectFailure(take(kOpen, 0), 5, "creating stream folder: error 13 (Permission denied)");
  EXPECT_FALSE(take(kData, 2, "a"));
  EXPECT_FALSE(take(kClose, 3));
  EXPECT_EQ(count(Count::StreamsOpened), 1u);
  EXPECT_EQ(count(Count::StreamsIncomplete), 1u);
}

TEST_F(StreamSessionTest, OutlivesASinkThatCannotEvenBeAbandoned) {
  take(kOpen, 0);
  failing_ = 3;
  session_.end(Ending::ReceiverEnded, "the daemon ended");
  EXPECT_TRUE(fate().isGone);
}

TEST_F(StreamSessionTest, EndsAnOpenStreamFromOutside) {
  take(kOpen, 0);
  session_.end(Ending::ReceiverEnded, "the daemon ended");
  EXPECT_EQ(fate().reason, "the daemon ended");
  session_.end(Ending::ReceiverEnded, "again");
  EXPECT_EQ(count(Count::StreamsIncomplete), 1u);
}

TEST_F(StreamSessionTest, EndsAnOpenStreamWhenItIsDestroyed) {
  {
    StreamSession session(
        "q", [this](const std::string&, std::time_t) { return openSink(); }, stats_, observer_);
    session.take(recordOf(kOpen, 0, ""));
  }
  EXPECT_EQ(fate().reason, "abandoned");
  EXPECT_THAT(observer_.endings_, testing::ElementsAre(Ending::ReceiverEnded));
}

TEST_F(StreamSessionTest, LetsASlowSinkAskWhetherToGoOn) {
  take(kOpen, 0);
  take(kClose, 2);
  EXPECT_TRUE(fate().mayGoOn);
  isDaemonEnding_ = true;
  take(kOpen, 0);
  take(kClose, 2);
  EXPECT_FALSE(fate(1).mayGoOn);
}

TEST_F(StreamSessionTest, NoticesBetweenRecordsThatASinkFailed) {
  EXPECT_FALSE(session_.checkSink()) << "no stream";
  take(kOpen, 0);
  EXPECT_FALSE(session_.checkSink());
  failing_ = 5;
  expectFailure(session_.checkSink(), 5, "asking the engine: error 28 (No space left on device)");
  EXPECT_TRUE(fate().isGone);
  EXPECT_FALSE(session_.checkSink()) << "told once";
  EXPECT_FALSE(take(kClose, 2));
  EXPECT_FALSE(session_.checkSink());
}

TEST_F(StreamSessionTest, FailsAStreamThatIsSilentForTooLong) {
  EXPECT_FALSE(session_.takeSilence(std::chrono::seconds(60))) << "no stream";
  take(kOpen, 0);
  expectFailure(session_.takeSilence(std::chrono::seconds(60)), 5, "no batch for 60 seconds");
  EXPECT_EQ(fate().reason, "no batch for 60 seconds");
  EXPECT_FALSE(session_.takeSilence(std::chrono::seconds(60))) << "told once";
  EXPECT_FALSE(take(kData, 2, "a"));
  EXPECT_FALSE(take(kClose, 3)) << "no receipt";
}

TEST_F(StreamSessionTest, CountsWhatItTook) {
  take(kOpen, 0);
  take(kData, 2, "abc");
  take(kClose, 3);
  EXPECT_EQ(count(Count::StreamsOpened), 1u);
  EXPECT_EQ(count(Count::StreamsComplete), 1u);
  EXPECT_EQ(count(Count::StreamsIncomplete), 0u);
  EXPECT_EQ(count(Count::Records), 3u);
  EXPECT_EQ(count(Count::Bytes), 3u);
}

TEST_F(StreamSessionTest, IsCompleteThoughItsSinkCannotSayWhere) {
  failing_ = 6;
  take(kOpen, 0);
  const auto receipt = take(kClose, 2);
  ASSERT_TRUE(receipt.has_value());
  EXPECT_EQ(receipt->status, 0u);
  EXPECT_TRUE(fate().complete);
  EXPECT_EQ(fate().reason, "");
}

TEST_F(StreamSessionTest, FailsWhenThereIsNoSinkForIt) {
  failing_ = 7;
  expectFailure(take(kOpen, 0), 5, "the daemon made no sink for the stream");
}

TEST_F(StreamSessionTest, FailsWhenThereIsNoMemoryForItsSink) {
  failing_ = 8;
  expectFailure(take(kOpen, 0), 5, "std::bad_alloc");
}

TEST_F(StreamSessionTest, TellsTheObserverWhereAnOpenedStreamGoes) {
  take(kOpen, 0);
  EXPECT_THAT(observer_.places_, testing::ElementsAre("here"));
  failing_ = 4;
  take(kOpen, 0);
  EXPECT_EQ(observer_.places_.size(), 1u) << "it has no sink";
}

TEST_F(StreamSessionTest, TellsTheObserverHowEachStreamEnded) {
  const std::pair<Ending, std::function<void()>> ways[] = {
      {Ending::Complete, [this] { take(kClose, 2); }},
      {Ending::Stopped, [this] { take(kStop, 2); }},
      {Ending::CutOff, [this] { take(kOpen, 0); }},
      {Ending::Silent, [this] { session_.takeSilence(std::chrono::seconds(1)); }},
      {Ending::Corrupt, [this] { take(7, 2); }},
      {Ending::Corrupt, [this] { session_.takeDamage("cut"); }},
      {Ending::SinkFailed,
       [this] {
         failing_ = 1;
         take(kData, 2, "a");
       }},
      {Ending::QueuesLost, [this] { session_.end(Ending::QueuesLost, "gone"); }},
      {Ending::ReceiverEnded, [this] { session_.end(Ending::ReceiverEnded, "over"); }}};
  for (const auto& [ending, way] : ways) {
    session_.end(Ending::ReceiverEnded, "the one before");
    observer_.endings_.clear();
    failing_ = 0;
    take(kOpen, 0);
    way();
    EXPECT_THAT(observer_.endings_, testing::ElementsAre(ending));
    EXPECT_EQ(fates_.at(fates_.size() - (ending == Ending::CutOff ? 2 : 1))->summary.ending,
              ending);
  }
}

TEST_F(StreamSessionTest, OpensASinkForItsQueueAndTime) {
  std::string queue;
  std::time_t opened = 0;
  session_.openWith([&](const std::string& name, std::time_t time) {
    queue = name;
    opened = time;
    return openSink();
  });
  const std::time_t before = std::time(nullptr);
  take(kOpen, 0);
  take(kClose, 2);
  EXPECT_EQ(queue, "q");
  EXPECT_GE(opened, before);
  EXPECT_EQ(fate().summary.opened, opened);
  EXPECT_GE(fate().summary.closed, opened);
}

TEST_F(StreamSessionTest, TakesTheStopOfAFailedStream) {
  take(kOpen, 0);
  EXPECT_TRUE(take(kData, 0, "a"));
  EXPECT_FALSE(take(kStop, 2));
  EXPECT_EQ(count(Count::DroppedRecords), 1u) << "the stop is none of them";
  EXPECT_FALSE(take(kClose, 3)) << "a writer that stopped still closes when it goes";
  expectFailure(take(kData, 4), 32, "record type 1 sequence 4: no stream is open, expected type 0");
}
