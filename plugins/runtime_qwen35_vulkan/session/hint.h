// SPDX-License-Identifier: Apache-2.0
// The option text that a host gives with create().
#pragma once

#include <cstddef>
#include <string>

namespace qwen35rt {

// What the text asks for; the defaults ask for nothing.
struct CreateHintOpts {
  size_t ctx = 0;   // positions of the context; 0: not given
  int gpuDev = -1;  // device index; negative: the automatic choice
  int kv = 0;       // cache type: 0 f32, 1 q8_0, 2 q4_0
  bool kvSet = false;
  std::string plan;  // as LayerPlan::set() reads it
};

// Reads "anything;ctx=2048;kv=q8_0;plan=...". The first field is the host's own;
// unknown fields and values are passed over, and a later field replaces an earlier
// one. Null is the empty text.
CreateHintOpts parseHint(const char* hint);

}  // namespace qwen35rt
