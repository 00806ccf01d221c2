// SPDX-License-Identifier: Apache-2.0
#include "bench/bench_test.h"

namespace zemtool {

std::string BenchTest::name() const {
  std::string text = (kind == Kind::Prompt ? "pp" : "tg") + std::to_string(tokens);
  if (depth > 0) text += " @ d" + std::to_string(depth);
  if (sequences > 1) text += " x " + std::to_string(sequences);
  return text;
}

}  // namespace zemtool
