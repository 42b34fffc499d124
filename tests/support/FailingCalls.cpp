#include "support/FailingCalls.h"

#include <cerrno>
#include <fcntl.h>
#include <sys/mman.h>
#include <system_error>
#include <unistd.h>

namespace korvex::test {
namespace {

FailureOrder* makeOrder(const std::string& path) {
  const int file = ::open(path.c_str(), O_RDWR | O_CREAT | O_EXCL, 0600);
  if (file < 0 || ::ftruncate(file, sizeof(FailureOrder)) != 0) {
    throw std::system_error(errno, std::generic_category(), path);
  }
  void* const page =
      ::mmap(nullptr, sizeof(FailureOrder), PROT_READ | PROT_WRITE, MAP_SHARED, file, 0);
  ::close(file);
  if (page == MAP_FAILED) throw std::system_error(errno, std::generic_category(), path);
  return static_cast<FailureOrder*>(page);
}

}  // namespace

FailingCalls::FailingCalls(const std::string& folder, const std::string& orders)
    : folder_(folder), orders_(orders), order_(makeOrder(orders)) {}

FailingCalls::~FailingCalls() { ::munmap(order_, sizeof *order_); }

std::vector<std::string> FailingCalls::prefix() const {
  return {"/usr/bin/env", "LD_PRELOAD=" KORVEX_FAILING_CALLS_LIBRARY,
          std::string(kFailingFolderVariable) + "=" + folder_,
          std::string(kFailureOrderVariable) + "=" + orders_};
}

void FailingCalls::fail(int call, int error, FailureOrder::Kind kind) {
  order_->happened = false;
  order_->error = error;
  order_->kind = kind;
  order_->callsUntilFailure = call;
}

bool FailingCalls::stop() {
  order_->callsUntilFailure = 0;
  return order_->happened;
}

}  // namespace korvex::test
