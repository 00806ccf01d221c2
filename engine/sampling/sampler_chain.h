// SPDX-License-Identifier: Apache-2.0
// The choice of a sequence's next token.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <vector>

#include "engine/sampling/random.h"
#include "engine/sampling/token_filter.h"
#include "engine/sampling/token_window.h"
#include "engine/sampling_options.h"

namespace zem {

// Draws the tokens of one sequence. The same seed, tokens and logits give the same ids on every
// machine. In this order:
//
//   1. Ids from `tokens` on have no token: they are left out. NaN counts as negative
//      infinity.
//   2. For each id that was recorded, c > 0 times within the window, once: the logit x becomes
//      x / repeatPenalty when x > 0, else x * repeatPenalty; then x - presencePenalty; then
//      x - c * frequencyPenalty.
//   3. The biases are added, each rounded to float; NaN counts as negative infinity.
//   4. Ids that the filter refuses get negative infinity. When some values are infinite, they
//      become 0 and all others negative infinity.
//   5. topK: the largest stay, equal ones by id.
//   6. topP: with weights e^(x - largest x) in double, the largest stay, up to the one with
//      which their sum reaches topP times the sum of all, summed from the lowest id up.
//   7. minP: those with a weight of minP and more stay.
//   8. Temperature and draw: x becomes x * (1 / temperature), rounded to float. From the largest
//      on, equal ones by id, weights as above are added up; the first id with which their sum
//      reaches u times the sum of all is drawn. Where the largest product is no float,
//      the ids of the largest x weigh 1 and others 0. At temperature 0 the largest x is
//      taken, of equal ones that with the lowest id.
//
// u is one output of Random, taken for each token whatever the options and the filter. A filter
// does not cost a mask for every token: constrained_draw.h.
//
// One thread at a time.
class SamplerChain {
 public:
  // REQUIRES: validate(options, tokens) succeeds; tokens is at most 2^31 - 1.
  SamplerChain(const SamplingOptions& options, uint32_t tokens);

  // Adds a token to those that penalties look at: each of the reply, drawn or forced.
  void record(uint32_t id) { window_.push(id); }

  // The next id, below `tokens` and the number of logits. Nothing when none has a logit above
  // negative infinity after step 4. Does not record it.
  std::optional<uint32_t> next(std::span<const float> logits, const TokenFilter* filter = nullptr);

  uint64_t seed() const { return seed_; }  // that of the options, or the one that was found

 private:
  std::span<const float> adjusted(std::span<const float> logits);
  void penalise();
  void addBiases();
  std::optional<uint32_t> drawMasked(std::span<const float> values, double u,
                                     const TokenFilter& filter);

  SamplingOptions options_;
  uint32_t tokens_;
  uint64_t seed_;
  Random random_;
  TokenWindow window_;
  std::vector<float> values_;   // adjusted logits
  std::vector<float> orderly_;  // without NaN and infinities, where there were some
  std::vector<bool> mask_;
};

}  // namespace zem
