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
  /// Replaces the plan by the one that `text` describes, for `nLayers` layers:
  /// comma-separated tokens "gpu" or "cpu", each with ":N" or ":all" for the next
  /// N or all remaining layers; only the first letter of a token counts. Layers
  /// that no count reached get the letter of the last good token, 'c' at first,
  /// so "gpu:10" puts every layer on the GPU and "gpu:10,cpu:0" puts ten. An empty
  /// text sets no plan. Prints the outcome, and every token that is no token, to
  /// the standard error stream. False, with no plan set, for a plan without layers.
  bool set(size_t nLayers, const std::string& text);

  bool isSet() const { return !layers_.empty(); }  ///< a plan decides
  /// Whether the tensor of that name may use the GPU: "blk.N.rest" follows layer
  /// N, any other name is allowed when some layer is.
  bool allows(const std::string& name) const;

 private:
  // Fills layers_, of which none is assigned yet.
  void parse(std::string_view text);
  size_t gpuLayers() const;

  std::vector<char> layers_;  // 'g' or 'c' each; empty: no plan
};

}  // namespace qwen35gpu
