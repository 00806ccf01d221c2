// SPDX-License-Identifier: Apache-2.0
// write_model FILE: a small model with random weights, for tests that are no C++.
#include <cstdio>
#include <exception>
#include <filesystem>

#include "engine/chat_model.h"

int main(int argc, char** argv) {
  if (argc != 2) return 2;
  try {
    const zemtest::TempFile file;
    zemtest::writeChatModel(file);
    std::filesystem::copy_file(file.string(), argv[1],
                               std::filesystem::copy_options::overwrite_existing);
  } catch (const std::exception& error) {
    std::fprintf(stderr, "write_model: %s\n", error.what());
    return 1;
  }
  return 0;
}
