#ifndef BENCH_GROWTH_REPLIES_H
#define BENCH_GROWTH_REPLIES_H

#include <string>
#include <vector>

namespace bench {

/// How long each of so many batches waited for its reply, in milliseconds, on a queue that was idle
/// before: from 5 ms, when its daemon still polls, to 2 s, when it has long gone to sleep, with as
/// many tries for each doubling. Throws when a reply fails to come.
std::vector<double> waitsForReplies(const std::string& queue, unsigned batches);

}  // namespace bench

#endif
