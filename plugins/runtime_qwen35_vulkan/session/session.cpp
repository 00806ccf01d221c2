#include "session/session.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <string_view>

#include "gpu/gpu_attach.h"
#include "qwen35_check.h"
#include "session/boundary.h"

namespace qwen35rt {
namespace {

// Sizes of ZEMSessionOptions that hosts were built with: up to `flags` and
// padding, and the whole record.
constexpr uint32_t kSamplingOptionsSize = 40;
constexpr uint32_t kFullOptionsSize = 56;

// atol with a 32-bit long, saturating, on every platform.
int32_t parseDecimal(const std::string& text) {
  const long value = std::strtol(text.c_str(), nullptr, 10);
  return static_cast<int32_t>(std::clamp<long>(value, std::numeric_limits<int32_t>::min(),
                                               std::numeric_limits<int32_t>::max()));
}

bool takePrefix(std::string_view& text, std::string_view prefix) {
  if (!text.starts_with(prefix)) return false;
  text.remove_prefix(prefix.size());
  return true;
}

void applyKvHint(std::string_view name, CreateHintOpts& opts) {
  static constexpr std::string_view kNames[] = {"f16", "q8_0", "q4_0"};
  const auto* const found = std::find(std::begin(kNames), std::end(kNames), name);
  if (found == std::end(kNames)) return;
  opts.kv = static_cast<int>(found - std::begin(kNames));
  opts.kvSet = true;
}

void applyHintField(std::string_view field, CreateHintOpts& opts) {
  if (takePrefix(field, "ctx=")) {
    const int32_t ctx = parseDecimal(std::string(field));
    if (ctx >= 1) opts.ctx = static_cast<size_t>(ctx);
  } else if (takePrefix(field, "kv=")) {
    applyKvHint(field, opts);
  } else if (takePrefix(field, "plan=")) {
    opts.plan = field;
  }
}

void warnKvUnsupported(Qwen35Session& s) {
  s.kvWarned = true;
  warn(std::string("kv cache quantization (") + (s.kvType == 1 ? "q8_0" : "q4_0") +
       ") not supported - kv stays f32; option ignored");
}

// Each step returns null, or the text for the host.
const char* openContainer(Qwen35Session& s) {
  s.loader = std::make_unique<kiv::ZEMLoader>();
  if (!s.loader->open(s.modelPath.c_str()).ok()) return "zem open failed";
  std::string architecture;
  const bool known = s.loader->getMetaStr("general.architecture", architecture);
  if (known && architecture == "qwen35moe") return "qwen35moe not supported yet";
  if (!known || architecture != "qwen35") return "not a qwen35-architecture model";
  return nullptr;
}

const char* loadTokenizer(Qwen35Session& s) {
  s.tok = std::make_unique<kiv::Tokenizer>();
  return s.tok->load(s.loader->tokenizer()).ok() ? nullptr : "tokenizer load failed";
}

const char* bindDecoder(Qwen35Session& s) {
  if (!qwen35::initLayers(*s.loader, s.model, kMaxPositions)) return "qwen35 layer bind failed";
  if (!qwen35::bindModel(*s.loader, s.model, kMaxPositions)) return "qwen35 model bind failed";
  s.weightsError = qwen35::checkWeights(*s.loader, s.model).message();
  return nullptr;
}

const char* openSession(Qwen35Session& s, const CreateHintOpts& hint) {
  if (const char* failure = openContainer(s)) return failure;
  if (const char* failure = loadTokenizer(s)) return failure;
  if (const char* failure = bindDecoder(s)) return failure;
  s.ctxCap = hint.ctx >= 1 && hint.ctx <= kMaxPositions ? hint.ctx : kMaxPositions;
  attachGpu(s, hint);
  s.modelReady = true;
  if (hint.kvSet && hint.kv != 0) {
    s.kvType = hint.kv;
    warnKvUnsupported(s);
  }
  return nullptr;
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

CreateHintOpts parseHint(const char* hint) {
  CreateHintOpts opts;
  std::string_view rest = hint == nullptr ? std::string_view() : std::string_view(hint);
  for (size_t end = rest.find(';'); end != std::string_view::npos; end = rest.find(';')) {
    rest.remove_prefix(end + 1);
    applyHintField(rest.substr(0, rest.find(';')), opts);
  }
  return opts;
}

int qwen35Create(const char* modelPath, const char* hint, ZEMRuntimeHandle** out, char* err,
                 size_t errSize) noexcept {
  if (out == nullptr) return 2;
  *out = nullptr;
  const char* failure = "out of memory";  // unless the body below gets to its end
  const int rc = guarded([&] {
    auto s = std::make_unique<Qwen35Session>();
    if (modelPath != nullptr) s->modelPath = modelPath;
    failure = openSession(*s, parseHint(hint));
    if (failure != nullptr) return 1;
    *out = reinterpret_cast<ZEMRuntimeHandle*>(s.release());
    return 0;
  });
  if (rc != 0 && err != nullptr && errSize != 0) copyText(failure, err, errSize);
  return rc;
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
