// SPDX-License-Identifier: Apache-2.0
// Texts that every machine with the project's sources has, for vocabularies and for
// what they encode.
#pragma once

#include <filesystem>
#include <fstream>
#include <iterator>
#include <set>
#include <string>
#include <vector>

namespace zembench {

namespace fs = std::filesystem;

struct Halves {
  std::string learnt;
  std::string unseen;
};

inline std::string contents(const fs::path& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

// The files below `folders`, every second one apart.
inline Halves filesBelow(const std::vector<fs::path>& folders,
                         const std::set<std::string>& extensions) {
  std::set<fs::path> files;
  for (const fs::path& folder : folders) {
    if (!fs::exists(folder)) continue;
    for (const auto& entry : fs::recursive_directory_iterator(folder)) {
      const bool wanted = extensions.count(entry.path().extension().string()) != 0;
      if (entry.is_regular_file() && !entry.is_symlink() && wanted) files.insert(entry.path());
    }
  }
  Halves halves;
  bool learn = true;
  for (const fs::path& file : files) {
    (learn ? halves.learnt : halves.unseen) += contents(file);
    learn = !learn;
  }
  return halves;
}

}  // namespace zembench
