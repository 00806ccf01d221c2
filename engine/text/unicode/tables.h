// SPDX-License-Identifier: Apache-2.0
// Data of the Unicode Character Database, generated: see tables.cpp.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>

namespace zem::text::unicode {

inline constexpr uint32_t kPoints = 0x110000;
inline constexpr uint32_t kBlockPoints = 128;
inline constexpr size_t kBlockCount = kPoints / kBlockPoints;
inline constexpr size_t kMaxBlocks = 256;

// A point's properties: kProperties[kBlockOf[point / 128] * 128 + point % 128].
extern const std::array<uint8_t, kBlockCount> kBlockOf;
extern const std::array<uint8_t, kMaxBlocks * kBlockPoints> kProperties;

// Points with a canonical combining class other than 0.
struct CombiningRange {
  uint32_t first;
  uint32_t last;
  uint8_t combiningClass;
};
extern const std::span<const CombiningRange> kCombining;  // by point

// One step of the canonical decomposition; `second` is 0 where it is one point.
struct Decomposition {
  uint32_t point;
  uint32_t first;
  uint32_t second;
};
extern const std::span<const Decomposition> kDecompositions;  // by point; without Hangul

struct Composition {
  uint32_t first;
  uint32_t second;
  uint32_t point;
};
extern const std::span<const Composition> kCompositions;  // by first, second; without Hangul

}  // namespace zem::text::unicode
