#ifndef KORVEXD_MANIFEST_H
#define KORVEXD_MANIFEST_H

#include <korvex/receiver/Sink.h>
#include <string>

namespace korvexd {

namespace receiver = korvex::receiver;

/// The text of a stream folder's manifest.json. An empty reason means that the stream is complete,
/// an empty SHA-256 that none was computed; "digest" names the best one that was.
std::string manifestOf(const receiver::StreamSummary& summary, const std::string& sha256,
                       const std::string& reason);

}  // namespace korvexd

#endif
