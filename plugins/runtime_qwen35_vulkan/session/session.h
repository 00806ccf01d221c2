// SPDX-License-Identifier: Apache-2.0
// The session behind a ZEMRuntimeHandle: an opened model with its tokenizer,
// decoder state, sampling settings and conversation.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <random>
#include <string>
#include <string_view>

#include "kiv/gpu_model_loader.h"
#include "kiv/tokenizer.h"
#include "kiv/zem_loader.h"
#include "qwen35_gpu_gemv.h"
#include "qwen35_model.h"
#include "zem/plugin.h"

namespace qwen35rt {

// Positions that the decoder's caches hold, whatever the hint asks for.
inline constexpr size_t kMaxPositions = 8192;
// Tokens that one call generates at most.
inline constexpr size_t kTokenBudget = 96;

// pos counts the tokens that the decoder's state holds. Invariant: pos <= ctxCap <=
// kMaxPositions, except after configure() has set ctxCap below pos. Members are
// destroyed from the last to the first: the GPU objects, then the tokenizer, then the
// loader.
struct Qwen35Session {
  std::unique_ptr<kiv::ZEMLoader> loader;
  qwen35::Model model;
  bool modelReady = false;  // every generating entry returns 2 while false
  std::unique_ptr<kiv::Tokenizer> tok;
  std::string modelPath;
  std::unique_ptr<kiv::GPUModelLoader> gpu;  // null: products run on the CPU
  std::unique_ptr<qwen35gpu::GpuGemv> gv;
  bool gpuUp = false;
  size_t ctxCap = 0;
  std::string sysText;  // for the first turn of a conversation
  int kvType = 0;       // requested: 0 f32, 1 q8_0, 2 q4_0
  bool kvWarned = false;
  float temperature = 0.0F;
  int32_t topK = 0;
  float topP = 0.0F;
  uint64_t seed = 42;
  std::mt19937 rng{42};
  size_t pos = 0;
  uint64_t genTokens = 0;
  double genMs = 0.0;
  double lastStepMs = 0.0;
  bool chatStarted = false;
  bool brokenOff = false;  // some layers have had a token that others have not
  // Why the weights must not be read; empty for a sound file. Such a session
  // exists (its file can be inspected) but every generating entry fails.
  std::string weightsError;
};

int qwen35Create(const char* modelPath, const char* hint, ZEMRuntimeHandle** out, char* err,
                 size_t errSize) noexcept;
void qwen35Destroy(ZEMRuntimeHandle* handle) noexcept;
int qwen35V2Configure(ZEMRuntimeHandle* handle, const ZEMSessionOptions* opts) noexcept;

// Takes over temperature, top_k, top_p and seed where they are set. False, with
// nothing changed, for null and for a record too short to hold them.
bool applySamplingOptions(Qwen35Session& s, const ZEMSessionOptions* opts);

// Copies `text` under the ABI's output-buffer rule; `out` non-null, size >= 1.
void copyText(std::string_view text, char* out, size_t outSize) noexcept;

// True when the weights may be read; otherwise prints the one line that names
// the first bad tensor.
bool weightsUsable(const Qwen35Session& s);

inline Qwen35Session* sessionOf(ZEMRuntimeHandle* handle) {
  return reinterpret_cast<Qwen35Session*>(handle);
}

}  // namespace qwen35rt
