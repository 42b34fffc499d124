#ifndef KORVEXD_FILE_H
#define KORVEXD_FILE_H

#include <cstddef>
#include <cstdint>
#include <korvex/receiver/SystemError.h>
#include <string>
#include <sys/types.h>

namespace korvexd {

namespace receiver = korvex::receiver;

/// An open file or folder. Closed on destruction, ignoring errors of close(): call sync() first for
/// what must be kept. Failures are SystemError, whose text begins with `doing`.
class File {
 public:
  File() noexcept = default;
  explicit File(int descriptor) noexcept : descriptor_(descriptor) {}
  ~File();
  File(File&& other) noexcept;
  File& operator=(File&& other) noexcept;

  /// Opens `name` in an open folder (or AT_FDCWD). Never follows a symbolic link in the last part.
  /// With O_CREAT the file has this mode, whatever the umask.
  static File openAt(int folder, const std::string& name, int flags, mode_t mode,
                     const std::string& doing);

  /// Opens a folder, to work in it whatever happens to its name; a link to one is followed.
  static File openFolder(const std::string& path, const std::string& doing);

  int descriptor() const noexcept { return descriptor_; }

  /// What to do with a symbolic link in the last part of a name.
  enum class Links { Follow, Refuse };

  /// Whether `name` in a folder (or AT_FDCWD) leads here, not elsewhere or nowhere.
  bool isNamed(int folder, const std::string& name, Links links) const noexcept;

  /// Whether it has no name left: a file or a folder that was removed.
  bool isRemoved() const noexcept;

  /// Its size now. Throws SystemError.
  std::uint64_t size(const std::string& doing) const;

  /// Writes everything, in as many steps as the system takes.
  void writeAll(const void* data, std::size_t size, const std::string& doing);

  /// Waits until contents and size are on the disk.
  void sync(const std::string& doing);

 private:
  int descriptor_ = -1;
};

/// Replaces or creates `name` in `folder` with this text, synced; nobody ever sees half of it.
/// Returns the file that has the name now.
File replaceFile(int folder, const std::string& name, const std::string& text, mode_t mode,
                 const std::string& doing);

/// Gives a file or a folder in `folder` (or AT_FDCWD) another name there. Fails with EEXIST when
/// that name is taken, by whatever.
///
/// On file systems that cannot do this in one step a file has both names for a moment. A folder may
/// then take the place of an empty folder that is made in that very moment; nothing is lost by it.
void renameWithoutReplacing(int folder, const std::string& from, const std::string& to,
                            const std::string& doing);

}  // namespace korvexd

#endif
