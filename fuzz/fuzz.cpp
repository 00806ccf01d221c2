// SPDX-License-Identifier: Apache-2.0
#include "fuzz.h"

#include <sys/mman.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <system_error>

namespace zemfuzz {

void fail(const char* what) {
  std::fprintf(stderr, "fuzz: %s\n", what);
  std::abort();
}

void touch(const void* data, size_t size) {
  const auto* bytes = static_cast<const uint8_t*>(data);
  uint8_t sum = 0;
  for (size_t i = 0; i < size; ++i) sum = static_cast<uint8_t>(sum ^ bytes[i]);
  [[maybe_unused]] static volatile uint8_t sink;
  sink = sum;
}

MemoryFile::MemoryFile()
    : fd_(memfd_create("fuzz", MFD_CLOEXEC)), path_("/proc/self/fd/" + std::to_string(fd_)) {
  require(fd_ >= 0, "no file in memory");
}

MemoryFile::~MemoryFile() { ::close(fd_); }

void MemoryFile::write(const uint8_t* data, size_t size) {
  require(::ftruncate(fd_, static_cast<off_t>(size)) == 0, "cannot size the file");
  patch(0, data, size);
}

void MemoryFile::patch(size_t offset, const uint8_t* data, size_t size) {
  const ssize_t done = size == 0 ? 0 : ::pwrite(fd_, data, size, static_cast<off_t>(offset));
  require(done == static_cast<ssize_t>(size), "cannot write the file");
}

ScratchFolder::ScratchFolder() {
  // In memory where the system has such a folder: every input is written to it.
  const std::filesystem::path memory = "/dev/shm";
  const bool inMemory = std::filesystem::is_directory(memory);
  const std::filesystem::path base = inMemory ? memory : std::filesystem::temp_directory_path();
  std::string name = (base / "zem-fuzz-XXXXXX").native();
  require(::mkdtemp(name.data()) != nullptr, "no folder");
  path_ = name;
}

ScratchFolder::~ScratchFolder() {
  std::error_code ignored;
  std::filesystem::remove_all(path_, ignored);
}

void ScratchFolder::write(const std::string& name, std::string_view text) const {
  std::ofstream file(path_ + "/" + name, std::ios::binary | std::ios::trunc);
  file.write(text.data(), static_cast<std::streamsize>(text.size()));
  require(static_cast<bool>(file.flush()), "cannot write a file");
}

void ScratchFolder::remove(const std::string& name) const {
  std::error_code ignored;
  std::filesystem::remove(path_ + "/" + name, ignored);
}

}  // namespace zemfuzz
