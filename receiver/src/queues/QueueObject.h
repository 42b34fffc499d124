#ifndef KORVEX_RECEIVER_QUEUE_OBJECT_H
#define KORVEX_RECEIVER_QUEUE_OBJECT_H

#include <sys/stat.h>

#include <string>
#include <vector>

namespace korvex::receiver {

/// The shared-memory object of a queue, held open; the one place that knows where objects lie.
///
/// A daemon claims the queues that it serves by a lock on their objects. The system frees the lock
/// when the daemon ends, even when it is killed, so a queue without claim is a dead daemon's.
class QueueObject {
 public:
  QueueObject() noexcept = default;

  /// Opens what lies under the name. Without an object, and errno set, when it cannot be opened.
  explicit QueueObject(const std::string& name) noexcept;
  ~QueueObject();
  QueueObject(QueueObject&& other) noexcept;
  QueueObject& operator=(QueueObject&& other) noexcept;

  int descriptor() const noexcept { return descriptor_; }
  bool isOpen() const noexcept { return descriptor_ >= 0; }

  /// Claims it until it is closed. False when another daemon has it.
  bool claim() const noexcept;

  /// Whether the name leads to this very object. Needs no descriptor, of which there may be none.
  bool isNamed(const std::string& name) const noexcept;

  /// In bytes; -1 when the system does not say.
  off_t size() const noexcept;

  /// What lies under a name, a symbolic link itself too. False, and errno set, when that cannot be
  /// known.
  static bool look(const std::string& name, struct stat& found) noexcept;

  /// Whether anything lies under a name. Needs no descriptor either.
  static bool exists(const std::string& name) noexcept;

  /// Gives an object another name. Throws SystemError, with EEXIST when the name is taken.
  static void rename(const std::string& from, const std::string& to, const std::string& doing);

  /// The names of all objects; those that appear or vanish meanwhile may be missing.
  static std::vector<std::string> names();

 private:
  int descriptor_ = -1;
};

}  // namespace korvex::receiver

#endif
