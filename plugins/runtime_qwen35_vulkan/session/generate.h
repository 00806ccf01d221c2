// SPDX-License-Identifier: Apache-2.0
// The token loop: feeding a prompt, one timed step, sampling until a stop rule.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "session/session.h"

namespace qwen35rt {

// Back to position 0 with an empty decoder state and no tokens counted.
void startConversation(Qwen35Session& s);
// As startConversation(); also ends a chat in progress and zeroes the time counter.
void startOver(Qwen35Session& s);

// The embedding of `id`. False, after a line on the standard error stream, for
// an id that the embedding has no row for: a tokenizer can be larger than it.
bool embed(Qwen35Session& s, int32_t id, std::vector<float>& x);

// Runs the decoder on embedding `x` (nEmb floats) and advances pos. False when
// a logit at index 0, 4096, 8192, ... is not finite.
bool forwardStep(Qwen35Session& s, const std::vector<float>& x, std::vector<float>& logits);

// Feeds `ids`; on success `logits` holds the prediction after the last one.
// False when the context is full, an id has no embedding row (a line on the
// standard error stream names it), or a hidden state or sampled logit is not
// finite; pos counts the steps that ran, the one that gave such values included.
bool prefill(Qwen35Session& s, const std::vector<int32_t>& ids, std::vector<float>& x,
             std::vector<float>& logits);

// Samples up to kTokenBudget tokens, one piece of text each, and feeds all but
// the last. Ends early at eosId, at stopToken, at a token that does not decode,
// when `onPiece` returns false, and when the context is full. False when a step
// failed.
using PieceFn = std::function<bool(const std::string& piece)>;
bool generatePieces(Qwen35Session& s, std::vector<float>& x, std::vector<float>& logits,
                    int32_t stopToken, const PieceFn& onPiece);

// Samples up to kTokenBudget tokens and returns their text. `ok` is false when
// a step failed.
std::string generate(Qwen35Session& s, std::vector<float>& x, std::vector<float>& logits,
                     int32_t stopToken, bool& ok);

int qwen35GenerateN(ZEMRuntimeHandle* handle, const char* prompt, char* out,
                    size_t outSize) noexcept;
int qwen35V2GenerateEx(ZEMRuntimeHandle* handle, const char* prompt, const ZEMSessionOptions* opts,
                       char* out, size_t outSize) noexcept;

}  // namespace qwen35rt
