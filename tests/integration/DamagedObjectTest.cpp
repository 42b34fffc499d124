#include <gtest/gtest.h>
#include <korvex/ShmWriter.h>
#include <sys/stat.h>
#include <unistd.h>

#include <boost/interprocess/exceptions.hpp>
#include <functional>
#include <memory>
#include <string>

#include "support/DaemonQueues.h"
#include "support/SharedObject.h"

using korvex_test::bytesOfObject;
using korvex_test::RawQueue;
using korvex_test::SharedObject;
using korvex_test::uniqueQueueName;

namespace {

/// What lies under a queue's name, as long as this lives.
using Holder = std::shared_ptr<void>;

/// One strange object, and the queue library's error that a writer must end with.
struct Kind {
  const char* name;
  std::function<Holder(const std::string&)> place;
  int error;
};

void PrintTo(const Kind& kind, std::ostream* stream) { *stream << kind.name; }

Holder objectOf(const std::string& name, const Bytes& bytes) {
  return std::make_shared<SharedObject>(name, bytes);
}

/// A sound queue's bytes, changed.
Holder changedQueue(const std::string& name, const std::function<void(Bytes&)>& change) {
  Bytes bytes;
  {
    const RawQueue model(uniqueQueueName(), 4, 132);
    bytes = bytesOfObject(model.name());
  }
  change(bytes);
  return objectOf(name, bytes);
}

Holder removedAtTheEnd(const std::string& path) {
  return Holder(nullptr, [path](void*) { ::remove(path.c_str()); });
}

std::string pathOf(const std::string& name) { return "/dev/shm/" + name; }

Kind withInitWord(const char* kind, unsigned char word) {
  const auto place = [word](const std::string& name) {
    return changedQueue(name, [word](Bytes& bytes) { bytes[0] = word; });
  };
  return {kind, place, boost::interprocess::corrupted_error};
}

Kind withSize(const char* kind, std::size_t size) {
  const auto place = [size](const std::string& name) {
    return changedQueue(name, [size](Bytes& bytes) { bytes.resize(size); });
  };
  return {kind, place, boost::interprocess::corrupted_error};
}

const Kind kKinds[] = {
    {"Absent", [](const std::string&) { return Holder(); }, boost::interprocess::not_found_error},
    {"Empty", [](const std::string& name) { return objectOf(name, {}); },
     boost::interprocess::corrupted_error},
    {"OneByte", [](const std::string& name) { return objectOf(name, {0}); },
     boost::interprocess::corrupted_error},
    {"TwoBytes",
     [](const std::string& name) {
       return objectOf(name, {2, 0});
     },
     boost::interprocess::corrupted_error},
    {"Zeros", [](const std::string& name) { return objectOf(name, Bytes(848)); },
     boost::interprocess::corrupted_error},
    withInitWord("NeverInitialized", 0),
    withInitWord("HalfInitialized", 1),
    withInitWord("MarkedCorrupted", 3),
    withInitWord("UnknownInitWord", 77),
    withSize("CutInTheHeader", 100),
    withSize("CutByOneByte", 847),
    withSize("GrownByOneByte", 849),
    {"Text", [](const std::string& name) { return objectOf(name, Bytes(4096, 'x')); },
     boost::interprocess::corrupted_error},
    {"Pipe",
     [](const std::string& name) {
       ::mkfifo(pathOf(name).c_str(), 0600);
       return removedAtTheEnd(pathOf(name));
     },
     boost::interprocess::corrupted_error},
    {"Folder",
     [](const std::string& name) {
       ::mkdir(pathOf(name).c_str(), 0700);
       return removedAtTheEnd(pathOf(name));
     },
     boost::interprocess::error_info(EINVAL).get_error_code()},
    {"SymbolicLink",
     [](const std::string& name) {
       EXPECT_EQ(::symlink("/dev/shm/elsewhere", pathOf(name).c_str()), 0);
       return removedAtTheEnd(pathOf(name));
     },
     boost::interprocess::error_info(ELOOP).get_error_code()},
};

class DamagedObject : public testing::TestWithParam<Kind> {
 protected:
  /// The error of a writer that may wait one second for its queues; 0 when it was built.
  static int errorOfWriter(const std::string& queue) {
    try {
      korvex::ShmWriter("stream", queue, 1, 1, false);
    } catch (const boost::interprocess::interprocess_exception& error) {
      return error.get_error_code();
    }
    return 0;
  }

  const std::string name_ = uniqueQueueName();
};

}  // namespace

TEST_P(DamagedObject, InPlaceOfTheSendQueueIsRefused) {
  const RawQueue response(name_ + "Response", 4, 132);
  const Holder object = GetParam().place(name_);
  EXPECT_EQ(errorOfWriter(name_), GetParam().error);
}

TEST_P(DamagedObject, InPlaceOfTheResponseQueueIsRefused) {
  const RawQueue send(name_, 4, 132);
  const Holder object = GetParam().place(name_ + "Response");
  EXPECT_EQ(errorOfWriter(name_), GetParam().error);
}

INSTANTIATE_TEST_SUITE_P(Kinds, DamagedObject, testing::ValuesIn(kKinds),
                         [](const auto& kind) { return std::string(kind.param.name); });
