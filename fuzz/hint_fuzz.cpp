// SPDX-License-Identifier: Apache-2.0
// The option text of create() and the text of a layer plan: what is understood stays
// within its limits, and a plan assigns the layers that a plain reading does.
#include <cstdlib>
#include <string>
#include <string_view>
#include <vector>

#include "fuzz.h"
#include "qwen35_layer_plan.h"
#include "session/hint.h"

namespace {

using zemfuzz::require;

void checkHint(const std::string& text) {
  const qwen35rt::CreateHintOpts opts = qwen35rt::parseHint(text.c_str());
  require(opts.ctx <= 0x7FFFFFFF, "a context beyond 31 bits");
  require(opts.kv >= 0 && opts.kv <= 2, "an unknown cache type");
  require(opts.kvSet || opts.kv == 0, "a cache type that the text does not set");
  require(opts.gpuDev == -1, "a device that the text cannot choose");
  require(opts.plan.find(';') == std::string::npos, "a plan with a separator in it");
  const bool stated = text.find(";plan=" + opts.plan) != std::string::npos;
  require(opts.plan.empty() || stated, "a plan that the text does not have");
}

std::vector<std::string> partsOf(const std::string& text) {
  std::vector<std::string> parts(1);
  for (const char c : text) {
    if (c == ',') {
      parts.emplace_back();
    } else {
      parts.back().push_back(c);
    }
  }
  return parts;
}

// One letter a layer, token by token.
std::string plainPlan(const std::string& text, size_t layers) {
  std::string plan;
  char fill = 'c';
  for (const std::string& part : partsOf(text)) {
    if (part.size() < 3 || (part[0] != 'g' && part[0] != 'c')) continue;
    const size_t colon = part.find(':', 2);
    const bool counted = colon != std::string::npos;
    if (counted && plan.size() == layers) break;
    fill = part[0];
    if (!counted) continue;
    const std::string count = part.substr(colon + 1);
    const long number = std::strtol(count.c_str(), nullptr, 10);
    for (long i = 0; plan.size() < layers && (count == "all" || i < number); ++i) plan += fill;
  }
  plan.resize(layers, fill);
  return plan;
}

void checkPlan(const std::string& text, size_t layers) {
  qwen35gpu::LayerPlan plan;
  const bool ok = plan.set(layers, text);
  require(ok == (text.empty() || layers > 0), "a plan is refused, or is not");
  require(plan.isSet() == (ok && !text.empty()), "a plan that is not there, or is");
  if (!plan.isSet()) return;
  const std::string expected = plainPlan(text, layers);
  for (size_t i = 0; i < layers; ++i) {
    const bool allowed = plan.allows("blk." + std::to_string(i) + ".ffn_up.weight");
    require(allowed == (expected[i] == 'g'), "a layer computes elsewhere");
  }
  const bool some = expected.find('g') != std::string::npos;
  require(plan.allows("token_embd.weight") == some, "the head computes elsewhere");
  require(!plan.allows("blk." + std::to_string(layers) + ".x"), "a layer too many");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  zemfuzz::Input in(data, size);
  const size_t layers = in.byte() % 40;
  const std::string text = in.rest();
  checkHint(text.c_str());  // a hint ends at its first NUL byte
  checkPlan(text, layers);
  const std::string plan = qwen35rt::parseHint(text.c_str()).plan;
  checkPlan(plan, layers);
  qwen35gpu::LayerPlan any;
  if (any.set(layers, "gpu:3,cpu:2")) (void)any.allows(text);
  return 0;
}
