#include "console/stderr_capture.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <system_error>
#include <thread>

namespace compat {
namespace {

int checked(int result) {
  if (result < 0) throw std::system_error(errno, std::generic_category());
  return result;
}

// An open file descriptor, closed with the object.
class Descriptor {
 public:
  Descriptor() = default;
  ~Descriptor() { reset(-1); }
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;

  int number() const { return number_; }
  // Takes over `number`.
  void reset(int number) {
    if (number_ >= 0) ::close(number_);
    number_ = number;
  }

 private:
  int number_ = -1;
};

// Drops the rest when nobody can read it any more.
void writeAll(int file, const char* bytes, size_t size) {
  while (size > 0) {
    const ssize_t written = ::write(file, bytes, size);
    if (written >= 0) {
      bytes += written;
      size -= static_cast<size_t>(written);
    } else if (errno == EAGAIN) {
      pollfd room{file, POLLOUT, 0};
      ::poll(&room, 1, -1);
    } else if (errno != EINTR) {
      return;
    }
  }
}

}  // namespace

class StderrTap::Impl {
 public:
  Impl() {
    std::array<int, 2> ends{};
    real_.reset(checked(::fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 0)));
    checked(::pipe2(ends.data(), O_CLOEXEC));
    exit_.reset(ends[0]);
    entry_.reset(ends[1]);
    checked(::fcntl(exit_.number(), F_SETFL, O_NONBLOCK));
    finished_.reset(checked(::eventfd(0, EFD_CLOEXEC)));
    thread_ = std::thread([this] { passOn(); });
    std::fflush(stderr);
    ::dup2(entry_.number(), STDERR_FILENO);
  }

  const std::string& finish() {
    if (!thread_.joinable()) return text_;
    std::fflush(stderr);
    ::dup2(real_.number(), STDERR_FILENO);
    const uint64_t one = 1;
    writeAll(finished_.number(), reinterpret_cast<const char*>(&one), sizeof one);
    thread_.join();
    return text_;
  }

 private:
  // The end is announced rather than read from the pipe: a child that still runs
  // would keep the pipe open.
  void passOn() {
    for (bool last = false; !last;) {
      std::array<pollfd, 2> events = {pollfd{exit_.number(), POLLIN, 0},
                                      pollfd{finished_.number(), POLLIN, 0}};
      ::poll(events.data(), events.size(), -1);
      last = events[1].revents != 0;
      while (passOnePiece()) {
      }
    }
  }

  bool passOnePiece() {
    std::array<char, 65536> piece;
    const ssize_t got = ::read(exit_.number(), piece.data(), piece.size());
    if (got <= 0) return got < 0 && errno == EINTR;
    const auto size = static_cast<size_t>(got);
    writeAll(real_.number(), piece.data(), size);
    text_.append(piece.data(), size);
    return true;
  }

  Descriptor real_;   // where standard error led
  Descriptor entry_;  // of the pipe that standard error leads to meanwhile
  Descriptor exit_;
  Descriptor finished_;  // an eventfd
  std::string text_;
  std::thread thread_;
};

StderrTap::StderrTap() : impl_(std::make_unique<Impl>()) {}
StderrTap::~StderrTap() { impl_->finish(); }
const std::string& StderrTap::finish() { return impl_->finish(); }

}  // namespace compat
