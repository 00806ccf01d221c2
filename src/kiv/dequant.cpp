// SPDX-License-Identifier: Apache-2.0
#include "kiv/dequant.h"

#include <array>

#include "kiv/quant.h"
#include "kiv/quant/quant_blocks.h"
#include "kiv/quant_k.h"

namespace kiv::quant {
namespace {

constexpr size_t kGroup = 32;  // elements in a sub-block of Q4_K and Q5_K

void decodeQ40(const Q40Block& block, float* y) {
  const float d = f16ToF32(block.d);
  for (size_t i = 0; i < kBlock32 / 2; ++i) {
    y[2 * i] = static_cast<float>((block.qs[i] & 0xF) - 8) * d;
    y[2 * i + 1] = static_cast<float>((block.qs[i] >> 4) - 8) * d;
  }
}

void decodeQ80(const Q80Block& block, float* y) {
  const float d = f16ToF32(block.d);
  for (size_t k = 0; k < kBlock32; ++k) y[k] = static_cast<float>(block.qs[k]) * d;
}

// The scale and the minimum of one sub-block.
struct Affine {
  float scale;
  float min;
};

template <typename Block>
std::array<Affine, 8> affines(const Block& block) {
  const float d = f16ToF32(block.d);
  const float dmin = f16ToF32(block.dmin);
  std::array<Affine, 8> result;
  for (size_t j = 0; j < result.size(); ++j) {
    uint8_t scale = 0;
    uint8_t min = 0;
    getScaleMinK4(static_cast<int>(j), block.scales, scale, min);
    result[j] = {static_cast<float>(scale) * d, static_cast<float>(min) * dmin};
  }
  return result;
}

void decodeQ4K(const Q4KBlock& block, float* y) {
  const std::array<Affine, 8> groups = affines(block);
  for (size_t c = 0; c < 4; ++c, y += 2 * kGroup) {
    const uint8_t* qs = block.qs + kGroup * c;
    const Affine a = groups[2 * c];
    const Affine b = groups[2 * c + 1];
    for (size_t l = 0; l < kGroup; ++l) {
      y[l] = static_cast<float>(qs[l] & 0xF) * a.scale - a.min;
      y[kGroup + l] = static_cast<float>(qs[l] >> 4) * b.scale - b.min;
    }
  }
}

void decodeQ5K(const Q5KBlock& block, float* y) {
  const std::array<Affine, 8> groups = affines(block);
  for (size_t c = 0; c < 4; ++c, y += 2 * kGroup) {
    const uint8_t* qs = block.qs + kGroup * c;
    const Affine a = groups[2 * c];
    const Affine b = groups[2 * c + 1];
    for (size_t l = 0; l < kGroup; ++l) {
      const int bits = block.qh[l] >> (2 * c);
      y[l] = static_cast<float>((qs[l] & 0xF) | ((bits & 1) << 4)) * a.scale - a.min;
      y[kGroup + l] = static_cast<float>((qs[l] >> 4) | ((bits & 2) << 3)) * b.scale - b.min;
    }
  }
}

// 16 elements of Q6_K whose low bits are a nibble (at `lowShift`) of `ql` and
// whose high bits are a pair (at `highShift`) of `qh`.
void decodeGroup6(const uint8_t* ql, int lowShift, const uint8_t* qh, int highShift, int scale,
                  float d, float* y) {
  for (size_t l = 0; l < 16; ++l) {
    const int low = (ql[l] >> lowShift) & 0xF;
    const int high = (qh[l] >> highShift) & 3;
    y[l] = static_cast<float>(scale * ((high << 4 | low) - 32)) * d;
  }
}

void decodeQ6K(const Q6KBlock& block, float* y) {
  const float d = f16ToF32(block.d);
  for (size_t group = 0; group < 16; ++group) {
    const size_t half = group / 8;
    const size_t quarter = group % 8 / 2;  // of the half: which bits of ql and qh
    const size_t l = group % 2 * 16;
    decodeGroup6(block.ql + 64 * half + 32 * (quarter % 2) + l, quarter < 2 ? 0 : 4,
                 block.qh + 32 * half + l, static_cast<int>(2 * quarter), block.scales[group], d,
                 y + 16 * group);
  }
}

}  // namespace

void dequantQ40(const void* src, float* dst, uint64_t n) {
  decodeBlocks<Q40Block, kBlock32>(src, dst, n, decodeQ40);
}

void dequantQ80(const void* src, float* dst, uint64_t n) {
  decodeBlocks<Q80Block, kBlock32>(src, dst, n, decodeQ80);
}

void dequantQ4K(const void* src, float* dst, uint64_t n) {
  decodeBlocks<Q4KBlock, kBlock256>(src, dst, n, decodeQ4K);
}

void dequantQ5K(const void* src, float* dst, uint64_t n) {
  decodeBlocks<Q5KBlock, kBlock256>(src, dst, n, decodeQ5K);
}

void dequantQ6K(const void* src, float* dst, uint64_t n) {
  decodeBlocks<Q6KBlock, kBlock256>(src, dst, n, decodeQ6K);
}

void dequantQ8K(const void* src, float* dst, uint64_t n) {
  if (n < kBlock256) return;
  Q8KBlock first;
  std::memcpy(&first, src, sizeof(first));
  const float d = f16ToF32(first.d);
  decodeBlocks<Q8KBlock, kBlock256>(src, dst, n - n % kBlock256,
                                    [d](const Q8KBlock& block, float* y) {
                                      for (size_t group = 0; group < 16; ++group) {
                                        const float scale = f16ToF32(block.bsums[group]);
                                        for (size_t i = 16 * group; i < 16 * (group + 1); ++i) {
                                          y[i] = static_cast<float>(block.qs[i]) * d * scale;
                                        }
                                      }
                                    });
}

}  // namespace kiv::quant
