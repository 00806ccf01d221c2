// SPDX-License-Identifier: Apache-2.0
#include "qwen35_layer_plan.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>

namespace qwen35gpu {
namespace {

constexpr char kGpu = 'g';
constexpr char kCpu = 'c';
constexpr size_t kShortestToken = 3;
// A device word has at least two characters, so that "g:4" has no count.
constexpr size_t kFirstColon = 2;
constexpr std::string_view kLayerPrefix = "blk.";

// One line on the standard error stream, written in one piece.
void print(const std::string& text) { std::fputs(("[qwen35-gpu] " + text + "\n").c_str(), stderr); }

bool isToken(std::string_view token) {
  return token.size() >= kShortestToken && (token[0] == kGpu || token[0] == kCpu);
}

// Layers that a count asks for, of `left`.
size_t countOf(std::string_view text, size_t left) {
  if (text == "all") return left;
  const long count = std::strtol(std::string(text).c_str(), nullptr, 10);
  return count <= 0 ? 0 : std::min(static_cast<size_t>(count), left);
}

}  // namespace

bool LayerPlan::set(size_t nLayers, const std::string& text) {
  layers_.clear();
  if (text.empty()) return true;
  if (nLayers == 0) {
    print("layer plan ignored (no layers)");
    return false;
  }
  layers_.assign(nLayers, kCpu);
  parse(text, /*report=*/true);
  const size_t gpu = gpuLayers();
  print("layer plan: " + std::to_string(gpu) + " gpu / " + std::to_string(nLayers - gpu) +
        " cpu layers");
  return true;
}

bool LayerPlan::keepsAllOnCpu(size_t nLayers, const std::string& text) {
  if (text.empty() || nLayers == 0) return false;
  LayerPlan plan;
  plan.layers_.assign(nLayers, kCpu);
  plan.parse(text, /*report=*/false);
  return plan.gpuLayers() == 0;
}

void LayerPlan::parse(std::string_view text, bool report) {
  size_t cursor = 0;
  char fill = kCpu;
  while (!text.empty()) {
    const std::string_view token = text.substr(0, text.find(','));
    text.remove_prefix(std::min(token.size() + 1, text.size()));
    if (!isToken(token)) {
      if (report) print("bad plan token '" + std::string(token) + "'");
      continue;
    }
    const size_t colon = token.find(':', kFirstColon);
    if (colon == std::string_view::npos) {
      fill = token[0];
      continue;
    }
    if (cursor == layers_.size()) break;
    fill = token[0];
    const size_t count = countOf(token.substr(colon + 1), layers_.size() - cursor);
    std::fill_n(layers_.begin() + static_cast<ptrdiff_t>(cursor), count, fill);
    cursor += count;
  }
  std::fill(layers_.begin() + static_cast<ptrdiff_t>(cursor), layers_.end(), fill);
}

size_t LayerPlan::gpuLayers() const {
  return static_cast<size_t>(std::count(layers_.begin(), layers_.end(), kGpu));
}

bool LayerPlan::allows(const std::string& name) const {
  if (!isSet()) return true;
  const size_t dot = name.find('.', kLayerPrefix.size());
  if (!name.starts_with(kLayerPrefix) || dot == std::string::npos) return gpuLayers() > 0;
  const std::string digits = name.substr(kLayerPrefix.size(), dot - kLayerPrefix.size());
  const long layer = std::strtol(digits.c_str(), nullptr, 10);
  if (layer < 0 || static_cast<size_t>(layer) >= layers_.size()) return false;
  return layers_[static_cast<size_t>(layer)] == kGpu;
}

}  // namespace qwen35gpu
