// SPDX-License-Identifier: Apache-2.0
#include "compat/replacing_file.h"

#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <filesystem>
#include <system_error>
#include <utility>

#include "compat/files.h"

namespace compat {
namespace {

namespace fs = std::filesystem;

constexpr size_t kBufferBytes = size_t{1} << 20;

}  // namespace

bool ReplacingFile::open(const std::string& path) {
  discard();
  error_.clear();
  path_ = path;
  std::error_code ec;
  if (fs::is_symlink(pathOf(path_), ec)) {
    const fs::path target = fs::canonical(pathOf(path_), ec);
    if (!ec) path_ = nameOf(target);
  }
  const fs::file_type type = typeOf(path_.c_str());
  if (type != fs::file_type::regular && type != fs::file_type::not_found &&
      type != fs::file_type::none) {
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
    fd_ = createToWrite(partial_.c_str());
  } while (fd_ < 0 && errno == EEXIST);
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
    if (!write(bytes, count, flushed_)) return false;
    flushed_ += count;
    return true;
  }
  const char* from = static_cast<const char*>(bytes);
  buffer_.insert(buffer_.end(), from, from + count);
  return true;
}

bool ReplacingFile::flush() {
  if (!write(buffer_.data(), buffer_.size(), flushed_)) return false;
  flushed_ += buffer_.size();
  buffer_.clear();
  return true;
}

bool ReplacingFile::overwrite(uint64_t offset, const void* bytes, size_t count) {
  return flush() && write(bytes, count, offset);
}

bool ReplacingFile::commit() {
  if (!flush()) return false;
  if (!syncToDisk(fd_)) return failWithErrno("write");
  // Some file systems report a failed write only here.
  if (::close(std::exchange(fd_, -1)) != 0) return failWithErrno("write");
  if (!moveOver(partial_.c_str(), path_.c_str())) return failWithErrno("replace");
  partial_.clear();
  return true;
}

void ReplacingFile::discard() {
  if (fd_ >= 0) ::close(std::exchange(fd_, -1));
  if (!partial_.empty()) removeFile(partial_.c_str());
  partial_.clear();
  buffer_.clear();
  flushed_ = 0;
}

bool ReplacingFile::write(const void* bytes, size_t count, uint64_t offset) {
  return writeAt(fd_, bytes, count, offset) || failWithErrno("write");
}

bool ReplacingFile::failWithErrno(const char* action) {
  const std::error_code reason(errno, std::generic_category());
  error_ = std::string("cannot ") + action + " " + path_ + ": " + reason.message();
  return false;
}

}  // namespace compat
