// SPDX-License-Identifier: Apache-2.0
// In place of libFuzzer: runs a fuzzer on each file that is named, and on all files
// of each folder.
#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "fuzz.h"

namespace {

namespace fs = std::filesystem;

std::vector<fs::path> filesUnder(const fs::path& path) {
  if (!fs::is_directory(path)) return {path};
  std::vector<fs::path> files;
  for (const auto& entry : fs::recursive_directory_iterator(path)) {
    if (entry.is_regular_file() && entry.path().filename() != "README.md") {
      files.push_back(entry.path());
    }
  }
  std::sort(files.begin(), files.end());
  return files;
}

bool replay(const fs::path& path) {
  std::ifstream file(path, std::ios::binary);
  const std::string text((std::istreambuf_iterator<char>(file)), {});
  if (!file.good() && !file.eof()) return false;
  // A buffer of exactly this size, so that a sanitizer sees an overrun.
  const std::vector<uint8_t> bytes(text.begin(), text.end());
  std::printf("%s (%zu bytes)\n", path.c_str(), bytes.size());
  std::fflush(stdout);
  LLVMFuzzerTestOneInput(bytes.data(), bytes.size());
  return true;
}

}  // namespace

int main(int argc, char** argv) {
  size_t count = 0;
  for (int i = 1; i < argc; ++i) {
    for (const fs::path& path : filesUnder(argv[i])) {
      if (!replay(path)) {
        std::fprintf(stderr, "cannot read %s\n", path.c_str());
        return 1;
      }
      ++count;
    }
  }
  std::printf("%zu inputs\n", count);
  return count == 0 ? 1 : 0;
}
