// SPDX-License-Identifier: Apache-2.0
// A folder that goes with everything in it.
#pragma once

#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <filesystem>
#include <fstream>
#include <string>
#include <string_view>
#include <vector>

#include "gtest/gtest.h"
#include "support/container_builder.h"
#include "support/whole_file.h"

namespace zemtest {

class TempFolder {
 public:
  TempFolder() {
    static std::atomic<unsigned> counter{0};
    do {
      path_ = ::testing::TempDir() + "zem-test-" + std::to_string(::getpid()) + "-d" +
              std::to_string(counter++);
    } while (!std::filesystem::create_directory(path_));
  }
  ~TempFolder() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }
  TempFolder(const TempFolder&) = delete;
  TempFolder& operator=(const TempFolder&) = delete;

  std::string path(const std::string& name) const { return (path_ / name).string(); }

  // Writes a file and returns its path. A new one takes the place of an old one:
  // some file systems go to the disk when an old one is overwritten. The old one may
  // be mapped, and its name lasts as long on Windows: so it gets another.
  std::string write(const std::string& name, std::string_view bytes) const {
    const std::filesystem::path old = path_.string() + "-old";
    std::error_code ignored;
    std::filesystem::rename(path(name), old, ignored);
    std::filesystem::remove(old, ignored);
    std::ofstream file(path(name), std::ios::binary);
    EXPECT_TRUE(file << bytes << std::flush) << "cannot write " << path(name);
    return path(name);
  }
  std::string write(const std::string& name, const Bytes& bytes) const {
    return write(name, std::string_view(reinterpret_cast<const char*>(bytes.data()), bytes.size()));
  }

  std::string read(const std::string& name) const { return wholeFile(path(name)); }

  // Names in the folder, or in one inside it, sorted.
  std::vector<std::string> names(const std::string& inside = ".") const {
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(path_ / inside)) {
      names.push_back(entry.path().filename().string());
    }
    std::sort(names.begin(), names.end());
    return names;
  }

 private:
  std::filesystem::path path_;
};

}  // namespace zemtest
