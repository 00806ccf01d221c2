// SPDX-License-Identifier: Apache-2.0
// Bytes of GGUF files.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace zem::text::test {

inline std::string number(uint64_t value, size_t bytes) {
  std::string out;
  for (size_t i = 0; i < bytes; ++i) out += static_cast<char>(value >> (8 * i));
  return out;
}

inline std::string lengthAnd(const std::string& text) { return number(text.size(), 8) + text; }

}  // namespace zem::text::test
