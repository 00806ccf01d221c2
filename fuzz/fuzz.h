// SPDX-License-Identifier: Apache-2.0
// What the fuzzers share. A fuzzer is a source with one function,
// LLVMFuzzerTestOneInput, which takes bytes from a stranger and calls fail() when
// something that must hold does not.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

namespace zemfuzz {

using Bytes = std::vector<uint8_t>;

// Ends the process with a message, as a crash that the fuzzer keeps.
[[noreturn]] void fail(const char* what);
inline void require(bool holds, const char* what) {
  if (!holds) fail(what);
}

// Reads every byte, so that a sanitizer sees those that are not there.
void touch(const void* data, size_t size);
inline void touch(std::string_view text) { touch(text.data(), text.size()); }

// A file in memory, for readers that take a path.
class MemoryFile {
 public:
  MemoryFile();
  ~MemoryFile();
  MemoryFile(const MemoryFile&) = delete;
  MemoryFile& operator=(const MemoryFile&) = delete;

  const char* path() const { return path_.c_str(); }
  // Replaces the contents.
  void write(const uint8_t* data, size_t size);
  void write(const Bytes& bytes) { write(bytes.data(), bytes.size()); }
  // Replaces the bytes from `offset` on.
  void patch(size_t offset, const uint8_t* data, size_t size);

 private:
  int fd_;
  std::string path_;
};

// A folder of files for readers that take one; it goes with the process.
class ScratchFolder {
 public:
  ScratchFolder();
  ~ScratchFolder();
  ScratchFolder(const ScratchFolder&) = delete;
  ScratchFolder& operator=(const ScratchFolder&) = delete;

  const std::string& path() const { return path_; }
  void write(const std::string& name, std::string_view text) const;
  void remove(const std::string& name) const;

 private:
  std::string path_;
};

// Takes an input apart. What is asked for beyond its end is zero or empty.
class Input {
 public:
  Input(const uint8_t* data, size_t size) : at_(data), left_(size) {}

  size_t left() const { return left_; }

  uint8_t byte() { return static_cast<uint8_t>(number(1)); }
  uint64_t number(size_t width) {
    uint64_t value = 0;
    const size_t count = std::min(width, left_);
    for (size_t i = 0; i < count; ++i) value |= uint64_t{at_[i]} << (8 * i);
    skip(count);
    return value;
  }
  // One byte says how many follow.
  std::string text() { return take(byte()); }
  std::string take(size_t size) {
    size = std::min(size, left_);
    std::string result(reinterpret_cast<const char*>(at_), size);
    skip(size);
    return result;
  }
  std::string rest() { return take(left_); }

 private:
  void skip(size_t count) {
    at_ += count;
    left_ -= count;
  }

  const uint8_t* at_;
  size_t left_;
};

}  // namespace zemfuzz
