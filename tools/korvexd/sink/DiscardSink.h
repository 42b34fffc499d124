#ifndef KORVEXD_DISCARD_SINK_H
#define KORVEXD_DISCARD_SINK_H

#include <korvex/receiver/Sink.h>

namespace korvexd {

namespace receiver = korvex::receiver;

/// Discards the data. For benchmarks and for testing a producer.
class DiscardSink : public receiver::Sink {
 public:
  void write(const unsigned char*, std::size_t) override {}
  void complete(const receiver::StreamSummary&, const receiver::StillFinishing&) override {}
  void abandon(const receiver::StreamSummary&, const std::string&) override {}
  std::string place() const override { return "discarded"; }
};

}  // namespace korvexd

#endif
