// SPDX-License-Identifier: Apache-2.0
#include <fcntl.h>
#include <sys/types.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <system_error>

#include "compat/files.h"

namespace compat {
namespace {

// Linux writes at most 2 GiB - 4096 a call; smaller pieces keep signals prompt.
constexpr size_t kMaxWrite = size_t{64} << 20;

// Makes a rename survive a power cut. Some file systems cannot do this to a folder; that is
// not a failure, because the file is whole either way.
void syncFolder(const std::filesystem::path& folder) {
  const int fd = ::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (fd < 0) return;
  (void)::fsync(fd);
  ::close(fd);
}

}  // namespace

std::filesystem::path pathOf(std::string_view name) { return name; }

std::string nameOf(const std::filesystem::path& path) { return path.native(); }

std::filesystem::file_type typeOf(const char* name) {
  std::error_code error;
  return std::filesystem::status(name, error).type();
}

int openToRead(const char* name) {
  // Without O_NONBLOCK the name of a pipe would wait here for a writer.
  return ::open(name, O_RDONLY | O_CLOEXEC | O_NONBLOCK);
}

std::FILE* openStream(const char* name, const char* mode) { return std::fopen(name, mode); }

int createToWrite(const char* name) {
  int fd = -1;
  do {
    fd = ::open(name, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
  } while (fd < 0 && errno == EINTR);
  return fd;
}

bool writeAt(int file, const void* bytes, size_t count, uint64_t offset) {
  const char* from = static_cast<const char*>(bytes);
  while (count > 0) {
    const ssize_t n = ::pwrite(file, from, std::min(count, kMaxWrite), static_cast<off_t>(offset));
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    from += n;
    count -= static_cast<size_t>(n);
    offset += static_cast<uint64_t>(n);
  }
  return true;
}

bool syncToDisk(int file) { return ::fsync(file) == 0; }

bool moveOver(const char* from, const char* to) {
  std::filesystem::path folder = std::filesystem::path(to).parent_path();
  if (folder.empty()) folder = ".";
  if (std::rename(from, to) != 0) return false;
  syncFolder(folder);  // the file is in its place already, so this cannot fail
  return true;
}

bool removeFile(const char* name) { return ::unlink(name) == 0; }

}  // namespace compat
