#ifndef KORVEXD_NAMES_H
#define KORVEXD_NAMES_H

#include <cstddef>
#include <string>

namespace korvexd {

/// The longest name that fileNameOf may give: room is left for a time, a number and a suffix.
constexpr std::size_t kLongestFileName = 200;

/// What is wrong with a queue's name, for a person; empty when nothing is.
///
/// A name may start with one slash. Otherwise it holds none, is not empty, "." or "..", and leaves
/// room for the response queue's name.
std::string queueNameDefect(const std::string& name);

/// The name without the slash it may start with: both spellings mean the same queue.
std::string plainQueueName(const std::string& name);

/// A file name for things of this queue. Letters, digits, '.', '_' and '-' stay, every other byte
/// and a leading dot become %XX. Different queues have different file names.
std::string fileNameOf(const std::string& queue);

/// The queue's name in JSON: itself where it is UTF-8, but for % as %25; else as in file names, for
/// JSON cannot hold other bytes. Different queues have different names there.
std::string jsonNameOf(const std::string& queue);

}  // namespace korvexd

#endif
