#include "verify/StreamCheck.h"

#include <cerrno>
#include <fcntl.h>
#include <korvex/receiver/StreamDigest.h>
#include <optional>
#include <sys/stat.h>
#include <system_error>
#include <unistd.h>

#include "Failure.h"
#include "common/Printable.h"
#include "common/Sha256.h"
#include "common/StoredNames.h"

namespace korvex::tool {
namespace {

constexpr std::size_t kPieceSize = std::size_t{1} << 20;
constexpr int kFileFlags = O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC;
constexpr int kFolderFlags = O_RDONLY | O_DIRECTORY | O_CLOEXEC;

/// An open file or folder, closed when it goes.
class Descriptor {
 public:
  explicit Descriptor(int descriptor) noexcept : descriptor_(descriptor) {}
  ~Descriptor() {
    if (descriptor_ >= 0) ::close(descriptor_);
  }
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;

  int get() const noexcept { return descriptor_; }

 private:
  int descriptor_;
};

/// For a link the system's error is about loops, and for a link in a folder's place about folders.
std::string textOf(int error) {
  if (error == ELOOP) return "it is a symbolic link";
  if (error == ENOTDIR) return "it is a link or not a folder";
  return std::generic_category().message(error);
}

[[noreturn]] void throwError(int error) {
  throw Failure(static_cast<ov_status_t>(error), textOf(error));
}

std::uint64_t sizeOfRegularFile(int file) {
  struct stat status = {};
  if (file < 0 || ::fstat(file, &status) != 0) throwError(errno);
  if (!S_ISREG(status.st_mode)) throw Failure(EINVAL, "it is not a regular file");
  return static_cast<std::uint64_t>(status.st_size);
}

std::string readManifest(int folder) {
  const Descriptor file(::openat(folder, common::kManifestName, kFileFlags));
  if (sizeOfRegularFile(file.get()) > kLargestManifest) {
    throw Failure(EFBIG, "larger than any manifest: expected at most " +
                             std::to_string(kLargestManifest) + " bytes");
  }
  std::string text(kLargestManifest, '\0');
  std::size_t size = 0;
  while (size < text.size()) {
    const ssize_t got = ::read(file.get(), &text[size], text.size() - size);
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) throwError(errno);
    if (got == 0) break;
    size += static_cast<std::size_t>(got);
  }
  text.resize(size);
  return text;
}

void damage(StoredStream& stream, const char* what, const std::string& text) {
  stream.state = StreamState::Damaged;
  stream.problems.push_back({what, text});
}

void compare(StoredStream& stream, const char* what, const std::string& found,
             const std::string& expected) {
  if (found == expected) return;
  damage(stream, what, "found " + found + ", expected " + expected);
}

void compareSize(StoredStream& stream, std::uint64_t found, std::uint64_t expected) {
  if (found == expected) return;
  damage(
      stream, "size",
      "found " + std::to_string(found) + " bytes, expected " + std::to_string(expected) + " bytes");
}

std::string noteOf(const StoredManifest& manifest) {
  if (manifest.isComplete) return "stored, but its folder did not get its final name";
  return manifest.reason.empty() ? "incomplete" : manifest.reason;
}

/// No manifest is the usual case: the stream is still open, or its daemon died.
std::string partialNote(int folder) {
  try {
    return noteOf(parseManifest(readManifest(folder)));
  } catch (const Failure& failure) {
    if (failure.status() == ENOENT) return "still open, or its daemon died: no manifest";
    return std::string("manifest: ") + failure.what();
  }
}

}  // namespace

StreamCheck::StreamCheck(CheckDepth depth, const StopSignal& stop,
                         std::atomic<std::uint64_t>& bytesRead)
    : depth_(depth), stop_(stop), bytesRead_(bytesRead), piece_(new unsigned char[kPieceSize]) {}

void StreamCheck::check(StoredStream& stream) {
  if (stream.state == StreamState::Foreign) return;
  stop_.throwIfReceived();
  const int linkFlag = stream.isGiven ? 0 : O_NOFOLLOW;
  const Descriptor folder(::open(stream.path.c_str(), kFolderFlags | linkFlag));
  const int error = errno;
  if (stream.state == StreamState::Partial) {
    stream.note = folder.get() < 0 ? textOf(error) : partialNote(folder.get());
  } else if (folder.get() < 0) {
    damage(stream, "folder", textOf(error));
  } else {
    checkFinal(folder.get(), stream);
  }
}

void StreamCheck::checkFinal(int folder, StoredStream& stream) {
  try {
    const StoredManifest manifest = parseManifest(readManifest(folder));
    if (manifest.isComplete) return checkData(folder, manifest, stream);
    damage(stream, "manifest", "state is \"incomplete\", expected \"complete\"");
  } catch (const Failure& failure) {
    damage(stream, "manifest", failure.what());
  }
}

void StreamCheck::checkData(int folder, const StoredManifest& manifest, StoredStream& stream) {
  try {
    const Descriptor data(::openat(folder, common::kDataName, kFileFlags));
    compareSize(stream, sizeOfRegularFile(data.get()), manifest.bytes);
    // Other bytes cannot have the same digests, so there is no need to read them.
    if (stream.state == StreamState::Damaged) return;
    digest(data.get(), manifest, stream);
  } catch (const Failure& failure) {
    damage(stream, "data", failure.what());
  }
}

void StreamCheck::digest(int data, const StoredManifest& manifest, StoredStream& stream) {
  receiver::StreamDigest xxh128;
  std::optional<common::Sha256> sha256;
  if (depth_ == CheckDepth::Both && !manifest.sha256.empty()) sha256.emplace();
  ::posix_fadvise(data, 0, 0, POSIX_FADV_SEQUENTIAL);  // only makes it faster
  // A file that grows meanwhile might never end.
  while (stream.bytes <= manifest.bytes) {
    const std::size_t size = readPiece(data);
    if (size == 0) break;
    // The faster one first: it leaves the piece in the processor's cache for the other.
    xxh128.add(piece_.get(), size);
    if (sha256) sha256->update(piece_.get(), size);
    stream.bytes += size;
    bytesRead_ += size;
  }
  stream.state = StreamState::Complete;
  compareSize(stream, stream.bytes, manifest.bytes);
  if (sha256) compare(stream, "sha256", sha256->hex(), manifest.sha256);
  compare(stream, "xxh128", xxh128.expected().xxh128, manifest.xxh128);
}

std::size_t StreamCheck::readPiece(int file) {
  for (;;) {
    stop_.throwIfReceived();
    const ssize_t got = ::read(file, piece_.get(), kPieceSize);
    if (got >= 0) return static_cast<std::size_t>(got);
    if (errno != EINTR) throwError(errno);
  }
}

}  // namespace korvex::tool
