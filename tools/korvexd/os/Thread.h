#ifndef KORVEXD_THREAD_H
#define KORVEXD_THREAD_H

#include <korvex/receiver/SystemError.h>
#include <string>
#include <system_error>
#include <thread>
#include <utility>

namespace korvexd {

namespace receiver = korvex::receiver;

/// A thread that runs the task. Throws SystemError "starting the thread of OWNER: ..." when the
/// system has none to give.
template <typename Task>
std::thread startThread(const std::string& owner, Task task) {
  try {
    return std::thread(std::move(task));
  } catch (const std::system_error& error) {
    throw receiver::SystemError("starting the thread of " + owner, error.code().value());
  }
}

}  // namespace korvexd

#endif
