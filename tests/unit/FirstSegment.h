#ifndef TESTS_UNIT_FIRST_SEGMENT_H
#define TESTS_UNIT_FIRST_SEGMENT_H

#include <korvex/ShmWriter.h>

namespace {

/// Whether the writer takes its next segment for a stream's first.
bool& firstSegmentOf(korvex::ShmWriter& writer);

/// An explicit instantiation may name a private member; the friend hands it out.
template <bool korvex::ShmWriter::*member>
struct FirstSegment {
  friend bool& firstSegmentOf(korvex::ShmWriter& writer) { return writer.*member; }
};
template struct FirstSegment<&korvex::ShmWriter::firstSegment_>;

}  // namespace

#endif
