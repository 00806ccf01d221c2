#include "compat/replacing_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <system_error>
#include <utility>

namespace compat {
namespace {

namespace fs = std::filesystem;

constexpr size_t kBufferBytes = size_t{1} << 20;
// Linux writes at most 2 GiB - 4096 a call; smaller pieces keep signals prompt.
constexpr size_t kMaxWrite = size_t{64} << 20;

// Makes the rename itself survive a power cut. The file is whole either way,
// so a file system that cannot do this to a folder is no failure.
void syncFolder(const fs::path& folder) {
  const int fd = ::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (fd < 0) return;
  (void)::fsync(fd);
  ::close(fd);
}

}  // namespace

bool ReplacingFile::open(const std::string& path) {
  discard();
  error_.clear();
  path_ = path;
  std::error_code ec;
  if (fs::is_symlink(path_, ec)) {
    const fs::path target = fs::canonical(path_, ec);
    if (!ec) path_ = target.string();
  }
  const fs::file_status status = fs::status(path_, ec);
  if (fs::exists(status) && !fs::is_regular_file(status)) {
    error_ = "cannot write " + path_ + ": not a regular file";
    return false;
  }
  return createPartial();
}

bool ReplacingFile::createPartial() {
  static std::atomic<unsigned> counter{0};
  do {
    partial_ = path_ + ".partial-" + std::to_string(::getpid()) + "-" +
               std::to_string(counter.fetch_add(1));
    fd_ = ::open(partial_.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
  } while (fd_ < 0 && (errno == EEXIST || errno == EINTR));
  if (fd_ < 0) {
    partial_.clear();
    return failWithErrno("create");
  }
  buffer_.reserve(kBufferBytes);
  return true;
}

bool ReplacingFile::append(const void* bytes, size_t count) {
  if (buffer_.size() + count > kBufferBytes && !flush()) return false;
  if (count > kBufferBytes) {
    if (!writeAll(bytes, count, flushed_)) return false;
    flushed_ += count;
    return true;
  }
  const char* from = static_cast<const char*>(bytes);
  buffer_.insert(buffer_.end(), from, from + count);
  return true;
}

bool ReplacingFile::flush() {
  if (!writeAll(buffer_.data(), buffer_.size(), flushed_)) return false;
  flushed_ += buffer_.size();
  buffer_.clear();
  return true;
}

bool ReplacingFile::overwrite(uint64_t offset, const void* bytes, size_t count) {
  return flush() && writeAll(bytes, count, offset);
}

bool ReplacingFile::commit() {
  if (!flush()) return false;
  if (::fsync(fd_) != 0) return failWithErrno("write");
  // Some file systems report a failed write only here.
  if (::close(std::exchange(fd_, -1)) != 0) return failWithErrno("write");
  if (std::rename(partial_.c_str(), path_.c_str()) != 0) return failWithErrno("replace");
  partial_.clear();
  const fs::path folder = fs::path(path_).parent_path();
  syncFolder(folder.empty() ? fs::path(".") : folder);
  return true;
}

void ReplacingFile::discard() {
  if (fd_ >= 0) ::close(std::exchange(fd_, -1));
  if (!partial_.empty()) ::unlink(partial_.c_str());
  partial_.clear();
  buffer_.clear();
  flushed_ = 0;
}

bool ReplacingFile::writeAll(const void* bytes, size_t count, uint64_t offset) {
  const char* from = static_cast<const char*>(bytes);
  while (count > 0) {
    const ssize_t n = ::pwrite(fd_, from, std::min(count, kMaxWrite), static_cast<off_t>(offset));
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return failWithErrno("write");
    from += n;
    count -= static_cast<size_t>(n);
    offset += static_cast<uint64_t>(n);
  }
  return true;
}

bool ReplacingFile::failWithErrno(const char* action) {
  const std::error_code reason(errno, std::generic_category());
  error_ = std::string("cannot ") + action + " " + path_ + ": " + reason.message();
  return false;
}

}  // namespace compat
