// SPDX-License-Identifier: Apache-2.0
// Encodes texts for a comparison: encode_lines TOKENIZER_JSON < LINES
// A line is a text as a JSON string; for each one a line of ids goes out.
#include <cstdio>
#include <exception>
#include <fstream>
#include <iostream>
#include <iterator>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "engine/text/tokenizer.h"

namespace {

int encodeLines(const char* path) {
  std::ifstream file(path, std::ios::binary);
  const std::string json{std::istreambuf_iterator<char>(file), {}};
  zem::text::Tokenizer tokenizer;
  if (const kiv::Status status = tokenizer.loadJson(json); !status.ok()) {
    std::fprintf(stderr, "encode_lines: %s\n", status.message().c_str());
    return 1;
  }
  std::string line;
  std::vector<int32_t> ids;
  while (std::getline(std::cin, line)) {
    const auto text = nlohmann::json::parse(line).get<std::string>();
    const kiv::Status status = tokenizer.encode(text, zem::text::AddedTokens::Recognised, ids);
    if (!status.ok()) {
      std::fprintf(stderr, "encode_lines: %s\n", status.message().c_str());
      return 1;
    }
    std::cout << nlohmann::json(ids).dump() << '\n';
  }
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: encode_lines TOKENIZER_JSON < LINES\n");
    return 2;
  }
  try {
    return encodeLines(argv[1]);
  } catch (const std::exception& error) {
    std::fprintf(stderr, "encode_lines: %s\n", error.what());
    return 1;
  }
}
