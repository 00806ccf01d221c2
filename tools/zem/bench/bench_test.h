// SPDX-License-Identifier: Apache-2.0
// What one row of a benchmark measures.
#pragma once

#include <string>

namespace zemtool {

struct BenchTest {
  enum class Kind { Prompt, Decode };

  Kind kind = Kind::Decode;
  int tokens = 0;     // of the prompt, or decoded
  int depth = 0;      // positions filled before
  int sequences = 1;  // conversations together

  // "pp512", "tg64", "tg64 @ d4096", "tg64 x 8".
  std::string name() const;
};

}  // namespace zemtool
