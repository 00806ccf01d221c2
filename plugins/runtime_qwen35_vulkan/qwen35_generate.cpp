#include "qwen35_generate.h"

#include <algorithm>
#include <chrono>
#include <limits>

#include "qwen35_boundary.h"
#include "qwen35_sampling.h"

namespace qwen35rt {
namespace {

constexpr size_t kMaxTextBytes = size_t{1} << 30;
constexpr size_t kTextSlack = 64;  // room for one more piece
// A vocabulary has hundreds of thousands of entries; a broken step spoils them all.
constexpr size_t kLogitCheckStride = 4096;

// False for NaN, too.
bool isFinite(float value) {
  constexpr float kLargest = std::numeric_limits<float>::max();
  return value >= -kLargest && value <= kLargest;
}

// Runs one decoder step at s.pos and accounts for it.
template <typename Step>
void timedStep(Qwen35Session& s, Step&& step) {
  using Nanoseconds = std::chrono::duration<double, std::nano>;
  const auto start = std::chrono::steady_clock::now();
  step();
  const Nanoseconds elapsed = std::chrono::steady_clock::now() - start;
  ++s.pos;
  s.lastStepMs = elapsed.count() / 1e6;
  s.genMs += s.lastStepMs;
}

// A step whose logits nobody needs. False when the hidden state is not finite.
bool hiddenStep(Qwen35Session& s, const std::vector<float>& x, std::vector<float>& hidden) {
  timedStep(s, [&] { qwen35::forwardTokenHidden(s.model, x.data(), s.pos, hidden.data()); });
  return std::all_of(hidden.begin(), hidden.end(), isFinite);
}

}  // namespace

void startConversation(Qwen35Session& s) {
  qwen35::resetModel(s.model);
  s.pos = 0;
  s.genTokens = 0;
}

void startOver(Qwen35Session& s) {
  startConversation(s);
  s.genMs = 0.0;
  s.chatStarted = false;
}

bool embed(Qwen35Session& s, int32_t id, std::vector<float>& x) {
  if (id < 0 || static_cast<size_t>(id) >= s.model.nVocab) {
    warn("token id " + std::to_string(id) + " has no embedding row - the model has " +
         std::to_string(s.model.nVocab) + " rows");
    return false;
  }
  qwen35::embedRow(s.model, static_cast<size_t>(id), x.data());
  return true;
}

bool forwardStep(Qwen35Session& s, const std::vector<float>& x, std::vector<float>& logits) {
  timedStep(s, [&] { qwen35::forwardToken(s.model, x.data(), s.pos, logits.data()); });
  for (size_t i = 0; i < logits.size(); i += kLogitCheckStride) {
    if (!isFinite(logits[i])) return false;
  }
  return true;
}

bool prefill(Qwen35Session& s, const std::vector<int32_t>& ids, std::vector<float>& x,
             std::vector<float>& logits) {
  if (ids.empty()) return true;
  std::vector<float> hidden(s.model.nEmb);
  for (size_t i = 0; i < ids.size(); ++i) {
    if (s.pos >= s.ctxCap) return false;
    if (!embed(s, ids[i], x)) return false;
    const bool last = i + 1 == ids.size();
    if (!(last ? forwardStep(s, x, logits) : hiddenStep(s, x, hidden))) return false;
  }
  return true;
}

bool generatePieces(Qwen35Session& s, std::vector<float>& x, std::vector<float>& logits,
                    int32_t stopToken, const PieceFn& onPiece) {
  std::string piece;
  for (size_t delivered = 0;;) {
    const int32_t id =
        sampleNext(logits.data(), logits.size(), s.temperature, s.topK, s.topP, s.rng);
    ++s.genTokens;
    if (id < 0 || id == s.tok->eos() || id == stopToken) return true;
    if (!s.tok->decode({id}, piece).ok()) return true;
    if (!onPiece(piece)) return true;
    if (++delivered == kTokenBudget) return true;
    if (s.pos >= s.ctxCap) return true;
    if (!embed(s, id, x) || !forwardStep(s, x, logits)) return false;
  }
}

std::string generate(Qwen35Session& s, std::vector<float>& x, std::vector<float>& logits,
                     int32_t stopToken, bool& ok) {
  std::string text;
  ok = generatePieces(s, x, logits, stopToken, [&text](const std::string& piece) {
    text += piece;
    return text.size() + kTextSlack <= kMaxTextBytes;
  });
  return text;
}

int qwen35GenerateN(ZEMRuntimeHandle* handle, const char* prompt, char* out,
                    size_t outSize) noexcept {
  if (handle == nullptr || out == nullptr || outSize == 0) return 2;
  Qwen35Session& s = *sessionOf(handle);
  if (!s.modelReady) return 2;
  *out = '\0';
  return guarded([&] {
    if (!weightsUsable(s)) return 1;
    std::vector<int32_t> ids;
    if (!s.tok->encode(prompt == nullptr ? "" : prompt, ids, true).ok()) return 1;
    startOver(s);

    std::vector<float> x(s.model.nEmb);
    std::vector<float> logits(s.model.nVocab);
    if (!prefill(s, ids, x, logits)) return 1;
    bool ok = false;
    const std::string text = generate(s, x, logits, s.tok->eos(), ok);
    if (!ok) return 1;
    copyText(text, out, outSize);
    return 0;
  });
}

int qwen35V2GenerateEx(ZEMRuntimeHandle* handle, const char* prompt, const ZEMSessionOptions* opts,
                       char* out, size_t outSize) noexcept {
  if (handle == nullptr || out == nullptr || outSize == 0) return 2;
  Qwen35Session& s = *sessionOf(handle);
  if (!s.modelReady) return 2;
  const float temperature = s.temperature;
  const int32_t topK = s.topK;
  const float topP = s.topP;
  applySamplingOptions(s, opts);
  const int rc = qwen35GenerateN(handle, prompt, out, outSize);
  s.temperature = temperature;
  s.topK = topK;
  s.topP = topP;
  return rc;
}

}  // namespace qwen35rt
