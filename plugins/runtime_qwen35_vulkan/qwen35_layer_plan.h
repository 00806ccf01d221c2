// SPDX-License-Identifier: Apache-2.0
/// \file
/// Which decoder layers compute on the GPU, from the text of a plan.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace qwen35gpu {

/// No plan, and everything allowed, until one is set. One thread at a time.
class LayerPlan {
 public:
  /// Replaces the plan by the one in `text`, for `nLayers` layers. The text is a list of
  /// tokens with commas between them: "gpu" or "cpu", of which only the first letter
  /// counts, and then ":N" for the next N layers, ":all" for all that are left, or
  /// neither. Layers that no token counted follow the last good token; without one they
  /// stay on the CPU. So "gpu:10" puts every layer on the GPU, and "gpu:10,cpu:0" puts
  /// ten there. An empty text sets no plan. Prints the outcome, and each token that it
  /// cannot read, to the standard error stream. False, with no plan set, when the text is
  /// not empty and there are no layers.
  bool set(size_t nLayers, const std::string& text);

  /// Whether set() would leave every layer on the CPU; prints nothing. False for no plan.
  static bool keepsAllOnCpu(size_t nLayers, const std::string& text);

  bool isSet() const { return !layers_.empty(); }  ///< a plan decides
  /// Whether the tensor of that name may use the GPU. "blk.N.rest" follows layer N; any
  /// other name may when at least one layer may.
  bool allows(const std::string& name) const;

 private:
  // Fills layers_, of which none is assigned yet. Reports bad tokens, or not.
  void parse(std::string_view text, bool report);
  size_t gpuLayers() const;

  std::vector<char> layers_;  // 'g' or 'c' each; empty: no plan
};

}  // namespace qwen35gpu
