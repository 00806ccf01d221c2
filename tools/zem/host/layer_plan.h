// SPDX-License-Identifier: Apache-2.0
// How a plan divides the layers of a model, by the grammar that docs/plugin-abi.md gives.
#pragma once

#include <cstddef>
#include <string_view>

namespace zemtool {

struct LayerSplit {
  size_t gpu = 0;
  size_t cpu = 0;
};

// `plan` is not empty: an empty one is the runtime's own plan.
LayerSplit splitLayers(std::string_view plan, size_t layers);

}  // namespace zemtool
