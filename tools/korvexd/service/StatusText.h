#ifndef KORVEXD_STATUS_TEXT_H
#define KORVEXD_STATUS_TEXT_H

#include <korvex/receiver/Counters.h>
#include <string>
#include <vector>

namespace korvexd {

/// What the daemon has done since its start, on one line: "2 queues, 1 open stream, 5 complete, 1
/// incomplete, 1.2 GB".
std::string statusText(const std::vector<const korvex::receiver::Counters*>& queues);

}  // namespace korvexd

#endif
