// SPDX-License-Identifier: Apache-2.0
#include "session/session.h"

#include <algorithm>
#include <cstring>
#include <string_view>

#include "gpu/gpu_attach.h"
#include "kiv/status.h"
#include "qwen35_check.h"
#include "session/boundary.h"
#include "session/hint.h"

namespace qwen35rt {
namespace {

using kiv::invalidFormat;
using kiv::Status;
using kiv::unsupported;

// Sizes of ZEMSessionOptions that hosts were built with: up to `flags` and
// padding, and the whole record.
constexpr uint32_t kSamplingOptionsSize = 40;
constexpr uint32_t kFullOptionsSize = 56;

void warnKvUnsupported(Qwen35Session& s) {
  s.kvWarned = true;
  warn(std::string("kv cache quantization (") + (s.kvType == 1 ? "q8_0" : "q4_0") +
       ") not supported - kv stays f32; option ignored");
}

// The message of each step is the text for the host.
Status openContainer(Qwen35Session& s) {
  s.loader = std::make_unique<kiv::ZEMLoader>();
  if (!s.loader->open(s.modelPath.c_str()).ok()) return invalidFormat("zem open failed");
  std::string architecture;
  const bool known = s.loader->getMetaStr("general.architecture", architecture);
  if (known && architecture == "qwen35moe") return unsupported("qwen35moe not supported yet");
  if (!known || architecture != "qwen35") {
    return unsupported("not a qwen35-architecture model");
  }
  return {};
}

Status loadTokenizer(Qwen35Session& s) {
  s.tok = std::make_unique<kiv::Tokenizer>();
  return s.tok->load(s.loader->tokenizer()).ok() ? Status()
                                                 : invalidFormat("tokenizer load failed");
}

Status bindDecoder(Qwen35Session& s) {
  if (!qwen35::initLayers(*s.loader, s.model, kMaxPositions)) {
    return invalidFormat("qwen35 layer bind failed");
  }
  if (!qwen35::bindModel(*s.loader, s.model, kMaxPositions)) {
    return invalidFormat("qwen35 model bind failed");
  }
  s.weightsError = qwen35::checkWeights(*s.loader, s.model).message();
  return {};
}

Status openSession(Qwen35Session& s, const CreateHintOpts& hint) {
  Status status = openContainer(s);
  if (status.ok()) status = loadTokenizer(s);
  if (status.ok()) status = bindDecoder(s);
  if (!status.ok()) return status;
  s.ctxCap = hint.ctx >= 1 && hint.ctx <= kMaxPositions ? hint.ctx : kMaxPositions;
  attachGpu(s, hint);
  s.modelReady = true;
  if (hint.kvSet && hint.kv != 0) {
    s.kvType = hint.kv;
    warnKvUnsupported(s);
  }
  return {};
}

void applyContextOptions(Qwen35Session& s, const ZEMSessionOptions& opts) {
  if (opts.ctx_len != 0) s.ctxCap = std::min<size_t>(opts.ctx_len, s.model.kvCap);
  if (opts.kv_cache_type > 0 && opts.kv_cache_type != s.kvType) {
    s.kvType = opts.kv_cache_type;
    if (!s.kvWarned) warnKvUnsupported(s);
  }
}

void applySystemPrompt(Qwen35Session& s, const char* text) {
  if (text == nullptr || *text == '\0') return;
  if (s.chatStarted) {
    warn("system prompt applies to a fresh conversation; use /clear or a new session");
  } else {
    s.sysText = text;
  }
}

}  // namespace

int qwen35Create(const char* modelPath, const char* hint, ZEMRuntimeHandle** out, char* err,
                 size_t errSize) noexcept {
  if (out == nullptr) return 2;
  *out = nullptr;
  const auto explain = [&](std::string_view failure) {
    if (err != nullptr && errSize != 0) copyText(failure, err, errSize);
    return 1;
  };
  try {
    auto s = std::make_unique<Qwen35Session>();
    if (modelPath != nullptr) s->modelPath = modelPath;
    if (Status status = openSession(*s, parseHint(hint)); !status.ok()) {
      return explain(status.message());
    }
    *out = reinterpret_cast<ZEMRuntimeHandle*>(s.release());
    return 0;
  } catch (...) {
    return explain("out of memory");
  }
}

void qwen35Destroy(ZEMRuntimeHandle* handle) noexcept { delete sessionOf(handle); }

bool applySamplingOptions(Qwen35Session& s, const ZEMSessionOptions* opts) {
  if (opts == nullptr || opts->struct_size < kSamplingOptionsSize) return false;
  if (opts->temperature >= 0.0F) s.temperature = opts->temperature;
  if (opts->top_k > 0) s.topK = opts->top_k;
  if (opts->top_p > 0.0F) s.topP = opts->top_p;
  if (opts->seed != 0) s.rng.seed(static_cast<uint32_t>(opts->seed));
  return true;
}

int qwen35V2Configure(ZEMRuntimeHandle* handle, const ZEMSessionOptions* opts) noexcept {
  if (handle == nullptr) return 2;
  Qwen35Session& s = *sessionOf(handle);
  return guarded([&] {
    if (!applySamplingOptions(s, opts)) return 2;
    if (opts->struct_size < kFullOptionsSize) return 0;
    applyContextOptions(s, *opts);
    applySystemPrompt(s, opts->system_prompt);
    return 0;
  });
}

void copyText(std::string_view text, char* out, size_t outSize) noexcept {
  const size_t n = std::min(text.size(), outSize - 1);
  std::memcpy(out, text.data(), n);
  out[n] = '\0';
}

bool weightsUsable(const Qwen35Session& s) {
  if (s.weightsError.empty()) return true;
  warn(s.weightsError);
  return false;
}

}  // namespace qwen35rt
