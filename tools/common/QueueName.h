#ifndef KORVEX_COMMON_QUEUE_NAME_H
#define KORVEX_COMMON_QUEUE_NAME_H

#include <cstddef>
#include <string>

namespace korvex::common {

/// The longest name that fileNameOf may give: room is left for a time, a number and a suffix.
constexpr std::size_t kLongestFileName = 200;

/// For a command line: what is wrong with the word as a queue's name; empty when nothing is.
std::string checkQueueName(const std::string& word);

/// The name without the slash it may start with: both spellings mean the same queue.
std::string plainQueueName(const std::string& name);

/// A file name for things of this queue. Letters, digits, '.', '_' and '-' stay, every other byte
/// and a leading dot become %XX. Different queues have different file names.
std::string fileNameOf(const std::string& queue);

/// The queue's name in JSON: itself, with % as %25, if it is UTF-8; else as in file names, because
/// JSON cannot hold other bytes. Different queues have different names there.
std::string jsonNameOf(const std::string& queue);

}  // namespace korvex::common

#endif
