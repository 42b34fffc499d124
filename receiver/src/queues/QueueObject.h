#ifndef KORVEX_RECEIVER_QUEUE_OBJECT_H
#define KORVEX_RECEIVER_QUEUE_OBJECT_H

#include <string>
#include <sys/stat.h>
#include <vector>

namespace korvex::receiver {

/// The shared-memory object of a queue, held open; the one place in the receiver that knows where
/// objects are.
///
/// A daemon claims the queues that it serves by a file lock on their objects. The system releases
/// the lock when the daemon ends, even if it is killed, so an unclaimed queue is a dead daemon's.
class QueueObject {
 public:
  QueueObject() noexcept = default;

  /// Opens what has the name. If that fails, isOpen() is false and errno is set.
  explicit QueueObject(const std::string& name) noexcept;
  ~QueueObject();
  QueueObject(QueueObject&& other) noexcept;
  QueueObject& operator=(QueueObject&& other) noexcept;

  int descriptor() const noexcept { return descriptor_; }
  bool isOpen() const noexcept { return descriptor_ >= 0; }

  /// Claims it until it is closed. False when another daemon has it.
  bool claim() const noexcept;

  /// Whether the name refers to this very object, and how many bytes it has then. Opens nothing, so
  /// it works when descriptors have run out. One system call: idle queues are asked often.
  bool isNamed(const std::string& name, off_t* size = nullptr) const noexcept;

  static std::string path(const std::string& name);

  /// As lstat(): a symbolic link is not followed. False, and errno set, if that fails.
  static bool look(const std::string& name, struct stat& found) noexcept;

  /// Whether anything has the name. Opens nothing, either.
  static bool exists(const std::string& name) noexcept;

  /// Gives an object another name. Throws SystemError, with EEXIST when the name is taken.
  static void rename(const std::string& from, const std::string& to, const std::string& doing);

  /// The names of all objects; those that appear or vanish meanwhile may be missing.
  static std::vector<std::string> names();

 private:
  int descriptor_ = -1;
  dev_t device_ = 0;
  ino_t inode_ = 0;
};

}  // namespace korvex::receiver

#endif
