// SPDX-License-Identifier: Apache-2.0
// Lines of the files in tests/data/unicode.
#pragma once

#include <cstdint>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "engine/text/unicode/utf8.h"

namespace zem::text::test {

inline std::vector<std::string> linesOf(const std::string& name) {
  std::ifstream file(std::string(ZEM_TEST_DATA "/unicode/") + name);
  std::vector<std::string> lines;
  for (std::string line; std::getline(file, line);) lines.push_back(line);
  if (lines.empty()) throw std::runtime_error("no lines in " + name);
  return lines;
}

inline uint32_t hexNumber(const std::string& digits) {
  return static_cast<uint32_t>(std::stoul(digits, nullptr, 16));
}

// "0041 0301" as text.
inline std::string textOfPoints(const std::string& points) {
  std::istringstream in(points);
  std::string out;
  for (std::string point; in >> point;) appendUtf8(hexNumber(point), out);
  return out;
}

inline std::string textOfPoint(uint32_t point) {
  std::string out;
  appendUtf8(point, out);
  return out;
}

inline bool isSurrogate(uint32_t point) { return point >= 0xD800 && point < 0xE000; }

}  // namespace zem::text::test
