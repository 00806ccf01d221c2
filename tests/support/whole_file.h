// SPDX-License-Identifier: Apache-2.0
// Files as tests read them.
#pragma once

#include <filesystem>
#include <fstream>
#include <string>

namespace zemtest {

// The bytes of a file, read in one piece: tests are compiled without optimisation, where a
// byte at a time takes seconds. Empty when there is no such file.
template <typename Bytes = std::string>
Bytes wholeFile(const std::filesystem::path& path) {
  std::ifstream file(path, std::ios::binary | std::ios::ate);
  const std::streamoff size = file ? std::streamoff{file.tellg()} : 0;
  Bytes bytes(static_cast<size_t>(size), typename Bytes::value_type{});
  file.seekg(0);
  file.read(reinterpret_cast<char*>(bytes.data()), size);
  return bytes;
}

}  // namespace zemtest
