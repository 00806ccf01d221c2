// SPDX-License-Identifier: Apache-2.0
#include "kiv/container/mapped_file.h"

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <system_error>
#include <utility>

#include "compat/files.h"
#include "compat/mman.h"

namespace kiv {
namespace {

constexpr uint64_t kPage = 4096;

Status cannotRead(const std::string& path, const std::string& reason) {
  return ioError("cannot read " + path + ": " + reason);
}

std::string lastError() { return std::error_code(errno, std::generic_category()).message(); }

}  // namespace

Status MappedFile::open(const std::string& path) {
  close();
  // First, because not every system opens a folder or a device.
  using Type = std::filesystem::file_type;
  const Type type = compat::typeOf(path.c_str());
  if (type == Type::directory) return cannotRead(path, "it is a directory");
  if (type != Type::regular && type != Type::not_found && type != Type::none) {
    return cannotRead(path, "it is not a regular file");
  }
  const int fd = compat::openToRead(path.c_str());
  if (fd < 0) return cannotRead(path, lastError());
  struct stat facts {};
  void* map = nullptr;
  if (::fstat(fd, &facts) == 0 && facts.st_size > 0) {
    map = ::mmap(nullptr, static_cast<size_t>(facts.st_size), PROT_READ, MAP_PRIVATE, fd, 0);
  }
  const std::string reason = lastError();
  ::close(fd);
  if (map == MAP_FAILED) return cannotRead(path, reason);
  path_ = path;
  data_ = static_cast<const uint8_t*>(map);
  size_ = map == nullptr ? 0 : static_cast<uint64_t>(facts.st_size);
  return {};
}

void MappedFile::close() {
  if (data_ != nullptr) ::munmap(const_cast<uint8_t*>(data_), size_);
  data_ = nullptr;
  size_ = 0;
  path_.clear();
}

void MappedFile::release(const uint8_t* from, uint64_t bytes) const {
  if (data_ == nullptr || from < data_ || from > data_ + size_) return;
  const auto offset = static_cast<uint64_t>(from - data_);
  const uint64_t begin = offset / kPage * kPage;
  const uint64_t end = offset + std::min(bytes, size_ - offset);
  if (end > begin) ::madvise(const_cast<uint8_t*>(data_) + begin, end - begin, MADV_DONTNEED);
}

}  // namespace kiv
