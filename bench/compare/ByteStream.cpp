// Pipe and Unix stream socket. Each message goes with its length in front, in one system call; the
// reader takes as much as there is with each call.
#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <stdexcept>
#include <sys/socket.h>
#include <sys/uio.h>
#include <system_error>
#include <unistd.h>

#include "Transports.h"

namespace bench {
namespace {

using Length = std::uint32_t;

constexpr int kKernelBuffer = 1 << 20;  // the largest that a pipe may get without privileges

[[noreturn]] void fail(const char* what) {
  throw std::system_error(errno, std::generic_category(), what);
}

class StreamSender : public Sender {
 public:
  explicit StreamSender(int file) : file_(file) {}
  ~StreamSender() override { ::close(file_); }

  void send(Bytes head, Bytes body) override {
    Length length = static_cast<Length>(head.size + body.size);
    iovec parts[] = {{&length, sizeof length},
                     {const_cast<unsigned char*>(head.data), head.size},
                     {const_cast<unsigned char*>(body.data), body.size}};
    writeAll(parts, 3, sizeof length + length);
  }

 private:
  void writeAll(iovec* parts, int count, std::size_t left) {
    for (;;) {
      const ssize_t written = ::writev(file_, parts, count);
      if (written < 0) fail("writev");
      if (static_cast<std::size_t>(written) == left) return;
      left -= static_cast<std::size_t>(written);
      drop(parts, static_cast<std::size_t>(written));
    }
  }

  /// Takes what was written off the front of the parts.
  static void drop(iovec* parts, std::size_t written) {
    for (iovec* part = parts; written > 0; ++part) {
      const std::size_t gone = std::min(written, part->iov_len);
      part->iov_base = static_cast<unsigned char*>(part->iov_base) + gone;
      part->iov_len -= gone;
      written -= gone;
    }
  }

  int file_;
};

class StreamReceiver : public Receiver {
 public:
  StreamReceiver(int file, std::size_t largestMessage)
      : file_(file),
        capacity_(sizeof(Length) + std::max<std::size_t>(largestMessage, kKernelBuffer)),
        buffer_(new unsigned char[capacity_]) {}
  ~StreamReceiver() override { ::close(file_); }

  Bytes receive() override {
    fill(sizeof(Length));
    Length length = 0;
    std::memcpy(&length, buffer_.get() + begin_, sizeof length);
    fill(sizeof length + length);
    const Bytes message = {buffer_.get() + begin_ + sizeof length, length};
    begin_ += sizeof length + length;
    return message;
  }

 private:
  /// Reads until `wanted` unread bytes are there.
  void fill(std::size_t wanted) {
    if (end_ - begin_ >= wanted) return;
    std::memmove(buffer_.get(), buffer_.get() + begin_, end_ - begin_);
    end_ -= begin_;
    begin_ = 0;
    while (end_ < wanted) {
      const ssize_t got = ::read(file_, buffer_.get() + end_, capacity_ - end_);
      if (got < 0) fail("read");
      if (got == 0) throw std::runtime_error("the stream ended early");
      end_ += static_cast<std::size_t>(got);
    }
  }

  int file_;
  std::size_t capacity_;
  std::unique_ptr<unsigned char[]> buffer_;
  std::size_t begin_ = 0;
  std::size_t end_ = 0;
};

/// Two connected descriptors; each process closes the one that it does not use.
class StreamTransport : public Transport {
 public:
  StreamTransport(const Settings& settings, int in, int out)
      : settings_(settings), in_(in), out_(out) {}
  ~StreamTransport() override {
    ::close(in_);
    ::close(out_);
  }

  std::unique_ptr<Producer> openProducer() override {
    ::close(out_);
    return makeProducer(settings_, std::make_unique<StreamSender>(in_));
  }

  std::unique_ptr<Receiver> openReceiver() override {
    ::close(in_);
    const std::size_t largest =
        std::max<std::size_t>(settings_.messageSize, bytesOf(settings_) / settings_.records);
    return std::make_unique<StreamReceiver>(out_, largest);
  }

 private:
  Settings settings_;
  int in_;
  int out_;
};

}  // namespace

std::unique_ptr<Transport> makePipe(const Settings& settings) {
  int ends[2];
  if (::pipe(ends) != 0) fail("pipe");
  // The default of 64 KiB would be unkind to it.
  if (::fcntl(ends[1], F_SETPIPE_SZ, kKernelBuffer) < 0) fail("F_SETPIPE_SZ");
  return std::make_unique<StreamTransport>(settings, ends[1], ends[0]);
}

std::unique_ptr<Transport> makeUnixSocket(const Settings& settings) {
  int ends[2];
  if (::socketpair(AF_UNIX, SOCK_STREAM, 0, ends) != 0) fail("socketpair");
  for (const int option : {SO_SNDBUF, SO_RCVBUF}) {
    for (const int end : ends) {
      // The system may grant less; the default is then the best that it has.
      static_cast<void>(
          ::setsockopt(end, SOL_SOCKET, option, &kKernelBuffer, sizeof kKernelBuffer));
    }
  }
  return std::make_unique<StreamTransport>(settings, ends[0], ends[1]);
}

}  // namespace bench
