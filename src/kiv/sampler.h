// SPDX-License-Identifier: Apache-2.0
/// \file
/// The choice of the next token, with penalties for what was said before.
#pragma once

#include <cstddef>
#include <cstdint>
#include <random>
#include <vector>

namespace kiv {

/// What a Sampler does to the logits before it draws. As constructed, every feature
/// is off; NaN switches a feature off, except for the two penalties that are
/// subtracted.
struct SamplerConfig {
  float temperature = 1.0F;       ///< logits are divided by it; off at 0 and below, and at 1
  int32_t topK = 0;               ///< how many of the largest stay; off below 1 and from n on
  float topP = 1.0F;              ///< probability to keep together; off outside (0, 1)
  float repeatPenalty = 1.0F;     ///< weakens an id's logit once an occurrence; off up to 1
  size_t repeatLastN = 64;        ///< how many of the last ids repeatPenalty looks at
  float presencePenalty = 0.0F;   ///< subtracted from the logit of every id that occurred
  float frequencyPenalty = 0.0F;  ///< subtracted once for every time that it occurred
  float minP = 0.0F;              ///< share of the best probability to reach; off outside (0, 1)
};

/// Draws token ids. The result is the same on every machine. The exponential is
/// math::expF32, and arithmetic is single precision; only minP sums and scales in double
/// precision. Sums run from the lowest id up, except the one that finds topP's cut: it
/// runs from the most probable id down.
///
/// Threads: sample() changes the generator. Samplers that share a generator may run
/// one call at a time.
class Sampler {
 public:
  /// The caller owns `rng`, which must live as long as the sampler.
  Sampler(std::mt19937& rng, const SamplerConfig& config) : rng_(rng), cfg_(config) {}

  /// What later calls do.
  void setConfig(const SamplerConfig& config) { cfg_ = config; }
  const SamplerConfig& config() const { return cfg_; }  ///< what calls do now

  /// An id from 0 to n - 1 for `n` logits, n at most 2^31 - 1; 0 for n = 0. Takes
  /// exactly one output of the generator, whatever the arguments. In this order:
  ///
  ///   1. repeatPenalty (Keskar et al., 2019): for each of the last repeatLastN entries
  ///      of `history`, the logit x of that id becomes x / repeatPenalty when x > 0, else
  ///      x * repeatPenalty;
  ///   2. of the logit of an id that occurs c > 0 times in all of `history`,
  ///      c * frequencyPenalty + presencePenalty is subtracted;
  ///   3. x * (1 / temperature); at 0 the logits stay as they are (greedy() is greedy);
  ///   4. topK: all but the largest become -1e30;
  ///   5. p = exp(x - max) / sum;
  ///   6. topP (Holtzman et al., 2020): from the most probable on, ids stay until their
  ///      sum is above topP; the others become 0, and p is divided by the sum of what stays;
  ///   7. minP (Nguyen et al., 2024): what is below minP * max p becomes 0, and p is
  ///      divided by the sum of what stays;
  ///   8. the first id with u < p[0] + ... + p[id], for a float u in [0, 1) made of one
  ///      generator output; if rounding left the sum of all below u, the most probable.
  ///
  /// Above 65536 logits, steps 5 to 8 see nothing but what topK keeps; the result is
  /// the same as long as some of it is above -1e30. `history` holds ids, oldest first;
  /// those outside 0 to n - 1 count for nothing. Equal values rank by id. Infinite
  /// logits share all probability; NaN counts as minus infinity, and logits that are
  /// all minus infinity are equally probable.
  int sample(const float* logits, size_t n, const std::vector<int32_t>& history) const;

  /// The id of the largest of `n` logits, the lowest among equals; 0 for n < 2. A NaN
  /// is passed over, but when the first logit is NaN the result is 0. Does not use the
  /// generator; any thread.
  static int greedy(const float* logits, size_t n);

 private:
  std::mt19937& rng_;
  SamplerConfig cfg_;
};

}  // namespace kiv
