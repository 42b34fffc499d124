#ifndef KORVEXD_DISCARD_SINK_H
#define KORVEXD_DISCARD_SINK_H

#include "korvexd/Sink.h"

namespace korvexd {

/// Forgets the data. For measuring and for trying out a producer.
class DiscardSink : public Sink {
 public:
  void write(const unsigned char*, std::size_t) override {}
  void complete(const StreamSummary&, const StillFinishing&) override {}
  void abandon(const StreamSummary&, const std::string&) override {}
  std::string place() const override { return "discarded"; }
};

}  // namespace korvexd

#endif
