// SPDX-License-Identifier: Apache-2.0
// A file that lives as long as a test needs it.
#pragma once

#include <unistd.h>

#include <atomic>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>
#include <system_error>
#include <vector>

#include "gtest/gtest.h"

namespace zemtest {

// A path that no other test uses, in the directory that GoogleTest names for
// scratch files. The destructor removes whatever file has come to lie there.
class TempFile {
 public:
  // Only the name: nothing is created.
  TempFile() : path_(uniquePath()) {}
  explicit TempFile(const std::vector<uint8_t>& bytes) : TempFile() { write(bytes); }
  ~TempFile() {
    std::error_code ignored;
    std::filesystem::remove(path_, ignored);
  }
  TempFile(const TempFile&) = delete;
  TempFile& operator=(const TempFile&) = delete;

  const char* path() const { return path_.c_str(); }
  const std::string& string() const { return path_; }
  bool exists() const { return std::filesystem::exists(path_); }

  // Puts a new file in the place of an old one (some file systems go to the disk
  // when an old one is overwritten). A disk that fails throws.
  void write(const std::vector<uint8_t>& bytes) const {
    std::filesystem::remove(path_);
    std::ofstream file(path_, std::ios::binary);
    file.write(reinterpret_cast<const char*>(bytes.data()),
               static_cast<std::streamsize>(bytes.size()));
    if (!file.flush()) throw std::runtime_error("cannot write " + path_);
  }

  std::vector<uint8_t> read() const {
    std::vector<uint8_t> bytes(std::filesystem::file_size(path_));
    std::ifstream file(path_, std::ios::binary);
    file.read(reinterpret_cast<char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
    if (!file) throw std::runtime_error("cannot read " + path_);
    return bytes;
  }

 private:
  static std::string uniquePath() {
    static std::atomic<unsigned> counter{0};
    return ::testing::TempDir() + "zem-test-" + std::to_string(::getpid()) + "-" +
           std::to_string(counter++);
  }

  std::string path_;
};

}  // namespace zemtest
