#include "console/stderr_capture.h"

#include <fcntl.h>
#include <io.h>
#include <windows.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <system_error>
#include <thread>

namespace compat {
namespace {

constexpr int kStderr = 2;
constexpr DWORD kPipeBytes = 65536;

// A kernel object, closed with the C++ one.
class Handle {
 public:
  explicit Handle(HANDLE handle) : handle_(handle) {
    if (handle_ == nullptr || handle_ == INVALID_HANDLE_VALUE) {
      throw std::system_error(static_cast<int>(GetLastError()), std::system_category());
    }
  }
  ~Handle() { CloseHandle(handle_); }
  Handle(const Handle&) = delete;
  Handle& operator=(const Handle&) = delete;

  HANDLE get() const { return handle_; }

 private:
  HANDLE handle_;
};

class Descriptor {
 public:
  explicit Descriptor(int number) : number_(number) {
    if (number_ < 0) throw std::system_error(errno, std::generic_category());
  }
  ~Descriptor() { close(); }
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;

  int number() const { return number_; }
  void close() {
    if (number_ >= 0) _close(number_);
    number_ = -1;
  }

 private:
  int number_;
};

// A name that nobody else has. Unnamed pipes cannot be read while waiting for
// something else as well.
std::wstring pipeName() {
  static std::atomic<unsigned> counter{0};
  return LR"(\\.\pipe\zem-stderr-)" + std::to_wstring(GetCurrentProcessId()) + L"-" +
         std::to_wstring(counter.fetch_add(1));
}

HANDLE createExit(const std::wstring& name) {
  return CreateNamedPipeW(
      name.c_str(), PIPE_ACCESS_INBOUND | FILE_FLAG_OVERLAPPED | FILE_FLAG_FIRST_PIPE_INSTANCE,
      PIPE_TYPE_BYTE | PIPE_WAIT | PIPE_REJECT_REMOTE_CLIENTS, 1, kPipeBytes, kPipeBytes, 0,
      nullptr);
}

int openEntry(const std::wstring& name) {
  HANDLE entry = CreateFileW(name.c_str(), GENERIC_WRITE, 0, nullptr, OPEN_EXISTING, 0, nullptr);
  if (entry == INVALID_HANDLE_VALUE) {
    throw std::system_error(static_cast<int>(GetLastError()), std::system_category());
  }
  const int fd = _open_osfhandle(reinterpret_cast<intptr_t>(entry), _O_BINARY);
  if (fd < 0) CloseHandle(entry);
  return fd;
}

// Drops the rest when nobody can read it any more.
void writeAll(int file, const char* bytes, size_t size) {
  while (size > 0) {
    const int written = _write(file, bytes, static_cast<unsigned>(size));
    if (written <= 0) return;
    bytes += written;
    size -= static_cast<size_t>(written);
  }
}

}  // namespace

class StderrTap::Impl {
 public:
  Impl() : Impl(pipeName()) {}

  const std::string& finish() {
    if (!thread_.joinable()) return text_;
    std::fflush(stderr);
    _dup2(real_.number(), kStderr);
    SetEvent(finished_.get());
    thread_.join();
    real_.close();  // whoever reads there may wait for its end
    return text_;
  }

 private:
  explicit Impl(const std::wstring& name)
      : real_(_dup(kStderr)),
        exit_(createExit(name)),
        arrived_(CreateEventW(nullptr, TRUE, FALSE, nullptr)),
        finished_(CreateEventW(nullptr, TRUE, FALSE, nullptr)) {
    const Descriptor entry(openEntry(name));
    thread_ = std::thread([this] { passOn(); });
    std::fflush(stderr);
    _dup2(entry.number(), kStderr);
  }

  // The end is announced rather than read from the pipe: a child that still runs
  // would keep the pipe open.
  void passOn() {
    while (passOnePiece()) {
    }
  }

  bool passOnePiece() {
    std::array<char, kPipeBytes> piece;
    OVERLAPPED reading{};
    reading.hEvent = arrived_.get();
    if (ReadFile(exit_.get(), piece.data(), piece.size(), nullptr, &reading) == 0 &&
        GetLastError() != ERROR_IO_PENDING) {
      return false;
    }
    const std::array<HANDLE, 2> events = {arrived_.get(), finished_.get()};
    // Both may have happened: then the first counts, for there may be more to read.
    const bool last = WaitForMultipleObjects(static_cast<DWORD>(events.size()), events.data(),
                                             FALSE, INFINITE) != WAIT_OBJECT_0;
    if (last) CancelIoEx(exit_.get(), &reading);
    DWORD got = 0;
    const BOOL whole = GetOverlappedResult(exit_.get(), &reading, &got, TRUE);
    writeAll(real_.number(), piece.data(), got);
    text_.append(piece.data(), got);
    return whole != 0 && !last;
  }

  Descriptor real_;  // where standard error led
  Handle exit_;      // of the pipe that standard error leads to meanwhile
  Handle arrived_;
  Handle finished_;
  std::string text_;
  std::thread thread_;
};

StderrTap::StderrTap() : impl_(std::make_unique<Impl>()) {}
StderrTap::~StderrTap() { impl_->finish(); }
const std::string& StderrTap::finish() { return impl_->finish(); }

}  // namespace compat
