// SPDX-License-Identifier: Apache-2.0
#include "session/bench.h"

#include <chrono>
#include <vector>

#include "sampling/sampling.h"
#include "session/boundary.h"
#include "session/generate.h"

namespace qwen35rt {
namespace {

constexpr char kBenchPrompt[] = "Hi";
constexpr int32_t kDefaultTokens = 64;
constexpr int32_t kDefaultWarmup = 8;
constexpr int64_t kMaxSteps = 4096;

int32_t orDefault(int32_t value, int32_t fallback) { return value >= 1 ? value : fallback; }

// Greedy decoding until `limit` tokens are chosen, the text or the context
// ends, or a step fails. Milliseconds spent.
double timeSteps(Qwen35Session& s, std::vector<float>& x, std::vector<float>& logits,
                 int64_t limit) {
  using Nanoseconds = std::chrono::duration<double, std::nano>;
  const auto start = std::chrono::steady_clock::now();
  for (int64_t i = 0;;) {
    const int32_t id = argmax(logits.data(), logits.size());
    if (id == s.tok->eos()) break;
    ++i;
    if (i >= limit || i == kMaxSteps) break;
    if (s.pos >= s.ctxCap) break;
    if (!embed(s, id, x) || !forwardStep(s, x, logits)) break;
  }
  const Nanoseconds elapsed = std::chrono::steady_clock::now() - start;
  return elapsed.count() / 1e6;
}

// A session's settings are greedy while one lives, and afterwards if they are kept.
class GreedySettings {
 public:
  explicit GreedySettings(Qwen35Session& s) : s_(s), temperature_(s.temperature), topK_(s.topK) {
    s.temperature = 0.0F;
    s.topK = 1;
  }
  ~GreedySettings() {
    if (kept_) return;
    s_.temperature = temperature_;
    s_.topK = topK_;
  }
  GreedySettings(const GreedySettings&) = delete;
  GreedySettings& operator=(const GreedySettings&) = delete;

  void keep() { kept_ = true; }

 private:
  Qwen35Session& s_;
  float temperature_;
  int32_t topK_;
  bool kept_ = false;
};

int runBench(Qwen35Session& s, const ZEMBenchParams* params, ZEMBenchResult& result) {
  if (!weightsUsable(s)) return 1;
  const int32_t tokens = orDefault(params != nullptr ? params->tokens : 0, kDefaultTokens);
  const int32_t warmup = orDefault(params != nullptr ? params->warmup : 0, kDefaultWarmup);
  std::vector<int32_t> ids;
  if (!s.tok->encode(kBenchPrompt, ids, true).ok()) return 1;

  startOver(s);
  GreedySettings greedy(s);
  std::vector<float> x(s.model.nEmb);
  std::vector<float> logits(s.model.nVocab);
  // A failure here leaves the session greedy until it is configured again.
  if (!prefill(s, ids, x, logits)) {
    greedy.keep();
    return 1;
  }

  const double elapsedMs = timeSteps(s, x, logits, int64_t{warmup} + tokens);
  result.struct_size = sizeof(ZEMBenchResult);
  result.tokens = static_cast<uint64_t>(tokens);
  result.ms_per_token = elapsedMs / tokens;
  result.tokens_per_sec = 1000.0 / result.ms_per_token;

  startOver(s);
  return 0;
}

}  // namespace

int qwen35V2Bench(ZEMRuntimeHandle* handle, const ZEMBenchParams* params,
                  ZEMBenchResult* result) noexcept {
  if (handle == nullptr || result == nullptr) return 2;
  Qwen35Session& s = *sessionOf(handle);
  if (!s.modelReady) return 2;
  return guarded([&] { return runBench(s, params, *result); });
}

int qwen35V2Stats(ZEMRuntimeHandle* handle, ZEMRuntimeStats* out) noexcept {
  if (handle == nullptr || out == nullptr) return 2;
  const Qwen35Session& s = *sessionOf(handle);
  out->struct_size = sizeof(ZEMRuntimeStats);
  out->tokens = s.genTokens;
  out->generation_ms = s.genMs;
  out->last_step_ms = s.lastStepMs;
  return 0;
}

int qwen35V2Reset(ZEMRuntimeHandle* handle) noexcept {
  if (handle == nullptr) return 2;
  Qwen35Session& s = *sessionOf(handle);
  return guarded([&] {
    startOver(s);
    s.lastStepMs = 0.0;
    return 0;
  });
}

}  // namespace qwen35rt
