// SPDX-License-Identifier: Apache-2.0
#include "host/layer_plan.h"

#include <algorithm>
#include <cstdlib>
#include <string>

namespace zemtool {
namespace {

constexpr size_t kShortestToken = 3;
constexpr size_t kFirstColon = 2;  // "g:4" has no count

bool isToken(std::string_view token) {
  return token.size() >= kShortestToken && (token[0] == 'g' || token[0] == 'c');
}

size_t countOf(std::string_view text, size_t left) {
  if (text == "all") return left;
  const long count = std::strtol(std::string(text).c_str(), nullptr, 10);
  return count <= 0 ? 0 : std::min(static_cast<size_t>(count), left);
}

}  // namespace

LayerSplit splitLayers(std::string_view plan, size_t layers) {
  LayerSplit split;
  char letter = 'c';
  size_t left = layers;
  const auto give = [&](size_t count) {
    (letter == 'g' ? split.gpu : split.cpu) += count;
    left -= count;
  };
  while (!plan.empty()) {
    const std::string_view token = plan.substr(0, plan.find(','));
    plan.remove_prefix(std::min(token.size() + 1, plan.size()));
    if (!isToken(token)) continue;
    const size_t colon = token.find(':', kFirstColon);
    if (colon != std::string_view::npos && left == 0) break;
    letter = token[0];
    if (colon != std::string_view::npos) give(countOf(token.substr(colon + 1), left));
  }
  give(left);
  return split;
}

}  // namespace zemtool
