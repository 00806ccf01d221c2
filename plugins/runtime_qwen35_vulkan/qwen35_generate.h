// The token loop: feeding a prompt, one timed step, sampling until a stop rule.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "qwen35_session.h"

namespace qwen35rt {

// Runs the decoder on embedding `x` (nEmb floats) and advances pos. False when
// a logit at index 0, 4096, 8192, ... is not finite.
bool forwardStep(Qwen35Session& s, const std::vector<float>& x, std::vector<float>& logits);

// Feeds `ids`; on success `logits` holds the prediction after the last one.
// False when the context is full, an id has no embedding row, or a hidden state
// or sampled logit is not finite; pos then stands behind the failing step.
bool prefill(Qwen35Session& s, const std::vector<int32_t>& ids, std::vector<float>& x,
             std::vector<float>& logits);

// Samples up to kTokenBudget tokens and returns their text. `ok` is false when
// a step failed.
std::string generate(Qwen35Session& s, std::vector<float>& x, std::vector<float>& logits,
                     int32_t stopToken, bool& ok);

int qwen35GenerateN(ZEMRuntimeHandle* handle, const char* prompt, char* out, size_t outSize);
int qwen35V2GenerateEx(ZEMRuntimeHandle* handle, const char* prompt, const ZEMSessionOptions* opts,
                       char* out, size_t outSize);

}  // namespace qwen35rt
