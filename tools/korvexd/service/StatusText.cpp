#include "korvexd/service/StatusText.h"

#include <algorithm>
#include <cstdint>

#include "common/Printable.h"

namespace korvexd {
namespace {

using korvex::receiver::Count;
using korvex::receiver::Counters;

std::uint64_t sumOf(const std::vector<const Counters*>& queues, Count count) {
  std::uint64_t sum = 0;
  for (const Counters* queue : queues) sum += queue->get(count);
  return sum;
}

std::string counted(std::uint64_t number, const std::string& thing) {
  return std::to_string(number) + " " + thing + (number == 1 ? "" : "s");
}

}  // namespace

std::string statusText(const std::vector<const Counters*>& queues) {
  const std::uint64_t complete = sumOf(queues, Count::StreamsComplete);
  const std::uint64_t incomplete = sumOf(queues, Count::StreamsIncomplete);
  // The counters are read one by one while they grow, so this may lag.
  const std::uint64_t opened = sumOf(queues, Count::StreamsOpened);
  const std::uint64_t open = opened - std::min(opened, complete + incomplete);
  const double bytes = static_cast<double>(sumOf(queues, Count::Bytes));
  return counted(queues.size(), "queue") + ", " + counted(open, "open stream") + ", " +
         std::to_string(complete) + " complete, " + std::to_string(incomplete) + " incomplete, " +
         korvex::common::byteText(bytes);
}

}  // namespace korvexd
