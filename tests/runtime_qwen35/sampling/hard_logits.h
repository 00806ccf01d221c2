// SPDX-License-Identifier: Apache-2.0
// Logits that are hard on one step or another of the choice of a token.
#pragma once

#include <bit>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <random>
#include <vector>

#include "support/float_values.h"

namespace zemtest::hard {

using zemtest::kInf;
using zemtest::kNan;

inline constexpr float kMax = std::numeric_limits<float>::max();
inline constexpr float kTiny = std::numeric_limits<float>::denorm_min();

// Kinds of logits, each with something that is hard on one step of the choice.
enum Kind {
  Bell,
  Peaked,
  FewValues,
  AllEqual,
  NeighbouringFloats,
  TwoTowers,
  EverFiner,  // distances to the largest of every magnitude
  Enormous,
  Masked,  // mostly negative infinity
  Zeros,   // of both signs, and the smallest numbers
  AnyBits,
  kKinds
};

inline float logit(int kind, std::mt19937& random) {
  std::normal_distribution<float> bell(0.0F, 2.5F);
  switch (kind) {
    case Bell:
      return bell(random);
    case Peaked:
      return random() % 100 == 0 ? 20.0F + bell(random) : bell(random);
    case FewValues:
      return static_cast<float>(random() % 5);
    case AllEqual:
      return 3.25F;
    case NeighbouringFloats:
      return std::bit_cast<float>(0x41200000U + static_cast<uint32_t>(random() % 40));
    case TwoTowers:
      return (random() % 2 == 0 ? 0.0F : 30.0F) + static_cast<float>(random() % 1000) * 1e-5F;
    case EverFiner:
      return -std::ldexp(1.0F, -static_cast<int>(random() % 140));
    case Enormous:
      return (random() % 2 == 0 ? 1.0F : -1.0F) * kMax / static_cast<float>(1 + random() % 3);
    case Masked:
      return random() % 8 == 0 ? bell(random) : -kInf;
    case Zeros:
      return random() % 3 == 0 ? 0.0F : (random() % 2 == 0 ? -0.0F : kTiny);
    default: {
      const auto value = std::bit_cast<float>(static_cast<uint32_t>(random()));
      return std::isnan(value) ? -kInf : value;
    }
  }
}

inline std::vector<float> logitsOf(int kind, size_t n, uint32_t seed) {
  std::mt19937 random(seed);
  std::vector<float> logits(n);
  for (float& x : logits) x = logit(kind, random);
  return logits;
}

}  // namespace zemtest::hard
