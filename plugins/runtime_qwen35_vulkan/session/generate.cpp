// SPDX-License-Identifier: Apache-2.0
#include "session/generate.h"

#include <algorithm>
#include <chrono>
#include <limits>
#include <span>

#include "layers/blocks.h"
#include "model/checkpoint.h"
#include "sampling/sampling.h"
#include "session/boundary.h"

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

template <typename Step>
double milliseconds(const Step& step) {
  using Nanoseconds = std::chrono::duration<double, std::nano>;
  const auto start = std::chrono::steady_clock::now();
  step();
  const Nanoseconds elapsed = std::chrono::steady_clock::now() - start;
  return elapsed.count() / 1e6;
}

// Runs one decoder step at s.pos and accounts for it.
template <typename Step>
void timedStep(Qwen35Session& s, const Step& step) {
  s.brokenOff = true;  // should the step not return
  s.lastStepMs = milliseconds(step);
  s.brokenOff = false;
  ++s.pos;
  s.genMs += s.lastStepMs;
}

// A step without logits. False when the hidden state is not finite.
bool hiddenStep(Qwen35Session& s, const std::vector<float>& x, std::vector<float>& hidden) {
  timedStep(s, [&] { qwen35::forwardTokenHidden(s.model, x.data(), s.pos, hidden.data()); });
  return std::all_of(hidden.begin(), hidden.end(), isFinite);
}

// Always false.
bool warnNoEmbedding(const Qwen35Session& s, int32_t id) {
  warn("token id " + std::to_string(id) + " has no embedding row - the model has " +
       std::to_string(s.model.nVocab) + " rows");
  return false;
}

bool hasEmbedding(const Qwen35Session& s, int32_t id) {
  return id >= 0 && static_cast<size_t>(id) < s.model.nVocab;
}

// Feeds tokens without computing logits, many at a time. Where a hidden state is not
// finite, the tokens up to it are fed again one by one, so that the session is
// left as if they had never gone together.
class HiddenTokens {
 public:
  explicit HiddenTokens(Qwen35Session& s) : s_(s), before_(s.model) {}

  // The ids, which all have an embedding, in one go: at most kBatchTokens of them,
  // for which the context has room. False when a hidden state is not finite.
  bool feed(std::span<const int32_t> ids) {
    const size_t width = s_.model.nEmb;
    x_.resize(ids.size() * width);
    hidden_.resize(x_.size());
    for (size_t i = 0; i < ids.size(); ++i) {
      qwen35::embedRow(s_.model, static_cast<size_t>(ids[i]), x_.data() + i * width);
    }
    before_.take(s_.pos);
    const double ms = milliseconds([&] { run(ids.size()); });
    if (!std::all_of(hidden_.begin(), hidden_.end(), isFinite)) {
      before_.restore();
      return feedSingly(ids.size());
    }
    s_.pos += ids.size();
    s_.genMs += ms;
    s_.lastStepMs = ms / static_cast<double>(ids.size());
    return true;
  }

 private:
  void run(size_t count) {
    try {
      qwen35::forwardTokensHidden(s_.model, x_.data(), count, s_.pos, hidden_.data());
    } catch (...) {
      before_.restore();  // some layers had them and some had not
      throw;
    }
  }

  bool feedSingly(size_t count) {
    const size_t width = s_.model.nEmb;
    std::vector<float> x(width);
    std::vector<float> hidden(width);
    for (size_t i = 0; i < count; ++i) {
      std::copy_n(x_.data() + i * width, width, x.data());
      if (!hiddenStep(s_, x, hidden)) return false;
    }
    return true;
  }

  Qwen35Session& s_;
  qwen35::Checkpoint before_;
  std::vector<float> x_;
  std::vector<float> hidden_;
};

// Feeds `ids` without computing logits, up to the first one that fails.
bool feedHidden(Qwen35Session& s, std::span<const int32_t> ids) {
  HiddenTokens tokens(s);
  while (!ids.empty()) {
    const size_t room = s.pos < s.ctxCap ? s.ctxCap - s.pos : 0;
    if (room == 0) return false;
    const auto next = ids.first(std::min({ids.size(), room, qwen35::kBatchTokens}));
    const auto bad =
        std::find_if_not(next.begin(), next.end(), [&](int32_t id) { return hasEmbedding(s, id); });
    const auto count = static_cast<size_t>(bad - next.begin());
    if (count > 0 && !tokens.feed(next.first(count))) return false;
    if (bad != next.end()) return warnNoEmbedding(s, *bad);
    ids = ids.subspan(count);
  }
  return true;
}

}  // namespace

void startConversation(Qwen35Session& s) {
  qwen35::resetModel(s.model);
  s.pos = 0;
  s.genTokens = 0;
  s.brokenOff = false;
}

void startOver(Qwen35Session& s) {
  startConversation(s);
  s.genMs = 0.0;
  s.chatStarted = false;
}

bool embed(Qwen35Session& s, int32_t id, std::vector<float>& x) {
  if (!hasEmbedding(s, id)) return warnNoEmbedding(s, id);
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
  if (!feedHidden(s, std::span(ids).first(ids.size() - 1))) return false;
  return s.pos < s.ctxCap && embed(s, ids.back(), x) && forwardStep(s, x, logits);
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
