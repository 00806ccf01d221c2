// SPDX-License-Identifier: Apache-2.0
#include "kiv/quant_k.h"

#include <array>

#include "kiv/quant/quant_blocks.h"

namespace kiv::quant {
namespace {

constexpr size_t kGroupSize = 32;  // elements in a sub-block of Q4_K and Q5_K
constexpr size_t kGroups = 8;      // sub-blocks in a block of either
constexpr size_t kGroup6 = 16;     // elements in a sub-block of Q6_K

// How a sub-block spans its codes: element = lo + code * scale.
struct GroupRange {
  float scale;
  float lo;
};

GroupRange quantGroupK(const float* x, float maxCode) {
  const float lo = smallest(x, kGroupSize);
  const float hi = largest(x, kGroupSize);
  return {(hi - lo) / maxCode, lo};
}

// The largest value, at least zero. NaN does not count.
template <typename Get>
float largestOf(const std::array<GroupRange, kGroups>& ranges, Get get) {
  float best = 0.0F;
  for (const GroupRange& range : ranges) best = get(range) > best ? get(range) : best;
  return best;
}

// Six bits for each scale and each minimum (the negated lo), as fractions of the
// largest, which go to `d` and `dmin`. The inverse of getScaleMinK4.
void packScalesK(const std::array<GroupRange, kGroups>& ranges, float& d, float& dmin,
                 uint8_t* packed) {
  const float maxScale = largestOf(ranges, [](const GroupRange& r) { return r.scale; });
  const float maxOffset = largestOf(ranges, [](const GroupRange& r) { return -r.lo; });
  d = maxScale / 63.0F;
  dmin = maxOffset / 63.0F;
  const float perScale = maxScale == 0.0F ? 0.0F : 63.0F / maxScale;
  const float perOffset = maxOffset == 0.0F ? 0.0F : 63.0F / maxOffset;
  std::fill_n(packed, 12, uint8_t{0});
  for (size_t j = 0; j < kGroups; ++j) {
    const int scale = roundToCode(ranges[j].scale * perScale, 0, 63);
    const int min = roundToCode(-ranges[j].lo * perOffset, 0, 63);
    if (j < 4) {
      packed[j] = static_cast<uint8_t>(scale);
      packed[j + 4] = static_cast<uint8_t>(min);
    } else {
      packed[j + 4] = static_cast<uint8_t>((scale & 0xF) | ((min & 0xF) << 4));
      packed[j - 4] = static_cast<uint8_t>(packed[j - 4] | ((scale >> 4) << 6));
      packed[j] = static_cast<uint8_t>(packed[j] | ((min >> 4) << 6));
    }
  }
}

// codes = (x + offset) / step, rounded.
template <int kMaxCode>
void roundGroup(const float* x, float offset, float step, uint8_t* codes) {
  for (size_t l = 0; l < kGroupSize; ++l) {
    codes[l] = static_cast<uint8_t>(roundToCode((x[l] + offset) / step, 0, kMaxCode));
  }
}

// Codes against the scales as a reader will see them, rounded twice. A sub-block
// whose stored step vanished keeps the codes of its own unrounded range.
template <int kMaxCode>
void requantK(const float* x, const std::array<GroupRange, kGroups>& ranges, float d, float dmin,
              const uint8_t* packed, uint8_t* codes) {
  for (size_t j = 0; j < kGroups; ++j, x += kGroupSize, codes += kGroupSize) {
    uint8_t scale = 0;
    uint8_t min = 0;
    getScaleMinK4(static_cast<int>(j), packed, scale, min);
    const float step = static_cast<float>(scale) * d;
    if (step != 0.0F) {
      roundGroup<kMaxCode>(x, static_cast<float>(min) * dmin, step, codes);
    } else if (ranges[j].scale > 0.0F) {
      roundGroup<kMaxCode>(x, -ranges[j].lo, ranges[j].scale, codes);
    } else {
      std::fill_n(codes, kGroupSize, uint8_t{0});
    }
  }
}

// The part that Q4_K and Q5_K have in common: everything but the packing of codes.
template <int kMaxCode, typename Block>
std::array<uint8_t, kBlock256> encodeGroups(const float* x, Block& block) {
  std::array<GroupRange, kGroups> ranges;
  for (size_t j = 0; j < kGroups; ++j) {
    ranges[j] = quantGroupK(x + j * kGroupSize, static_cast<float>(kMaxCode));
  }
  float d = 0.0F;
  float dmin = 0.0F;
  packScalesK(ranges, d, dmin, block.scales);
  block.d = f32ToF16(d);
  block.dmin = f32ToF16(dmin);
  std::array<uint8_t, kBlock256> codes;
  requantK<kMaxCode>(x, ranges, f16ToF32(block.d), f16ToF32(block.dmin), block.scales,
                     codes.data());
  return codes;
}

// Low four bits of the codes: each byte joins two neighbouring sub-blocks.
void packNibbles(const std::array<uint8_t, kBlock256>& codes, uint8_t* qs) {
  for (size_t c = 0; c < 4; ++c) {
    const uint8_t* a = &codes[64 * c];
    for (size_t l = 0; l < kGroupSize; ++l) {
      qs[32 * c + l] = static_cast<uint8_t>((a[l] & 0xF) | ((a[l + kGroupSize] & 0xF) << 4));
    }
  }
}

void encodeQ4K(const float* x, Q4KBlock& block) {
  packNibbles(encodeGroups<15>(x, block), block.qs);
}

void encodeQ5K(const float* x, Q5KBlock& block) {
  const std::array<uint8_t, kBlock256> codes = encodeGroups<31>(x, block);
  packNibbles(codes, block.qs);
  std::fill_n(block.qh, kGroupSize, uint8_t{0});
  for (size_t j = 0; j < kGroups; ++j) {
    for (size_t l = 0; l < kGroupSize; ++l) {
      block.qh[l] = static_cast<uint8_t>(block.qh[l] | ((codes[kGroupSize * j + l] >> 4) << j));
    }
  }
}

// Codes 0 to 63, of which 32 stands for zero.
void roundGroup6(const float* x, float step, uint8_t* codes) {
  if (step == 0.0F) {
    std::fill_n(codes, kGroup6, uint8_t{32});
    return;
  }
  for (size_t l = 0; l < kGroup6; ++l) {
    codes[l] = static_cast<uint8_t>(roundToCode(x[l] / step, -32, 31) + 32);
  }
}

void packHalf6(const uint8_t* codes, uint8_t* ql, uint8_t* qh) {
  for (size_t l = 0; l < 32; ++l) {
    const unsigned a = codes[l];
    const unsigned b = codes[32 + l];
    const unsigned c = codes[64 + l];
    const unsigned e = codes[96 + l];
    ql[l] = static_cast<uint8_t>((a & 0xF) | ((c & 0xF) << 4));
    ql[l + 32] = static_cast<uint8_t>((b & 0xF) | ((e & 0xF) << 4));
    qh[l] = static_cast<uint8_t>((a >> 4) | ((b >> 4) << 2) | ((c >> 4) << 4) | ((e >> 4) << 6));
  }
}

void encodeQ6K(const float* x, Q6KBlock& block) {
  std::array<float, kBlock256 / kGroup6> steps;
  for (size_t j = 0; j < steps.size(); ++j) {
    steps[j] = largestMagnitude(x + j * kGroup6, kGroup6) / 31.0F;
  }
  block.d = f32ToF16(largest(steps.data(), steps.size()) / 127.0F);
  const float d = f16ToF32(block.d);
  std::array<uint8_t, kBlock256> codes;
  for (size_t j = 0; j < steps.size(); ++j) {
    const int scale = d > 0.0F ? roundToCode(steps[j] / d, 0, 127) : 0;
    block.scales[j] = static_cast<int8_t>(scale);
    roundGroup6(x + j * kGroup6, static_cast<float>(scale) * d, &codes[j * kGroup6]);
  }
  packHalf6(codes.data(), block.ql, block.qh);
  packHalf6(codes.data() + 128, block.ql + 64, block.qh + 32);
}

}  // namespace

uint64_t quantizedBytesK(QuantType t, uint64_t n) {
  switch (t) {
    case QuantType::Q4_K:
      return blocksBytes(n, kBlock256, sizeof(Q4KBlock));
    case QuantType::Q5_K:
      return blocksBytes(n, kBlock256, sizeof(Q5KBlock));
    case QuantType::Q6_K:
      return blocksBytes(n, kBlock256, sizeof(Q6KBlock));
    case QuantType::IQ4_XS:
      return blocksBytes(n, kBlock256, 136);
    default:
      return 0;
  }
}

void getScaleMinK4(int j, const uint8_t* q, uint8_t& d, uint8_t& m) {
  if (j < 4) {
    d = q[j] & 63;
    m = q[j + 4] & 63;
  } else {
    d = static_cast<uint8_t>((q[j + 4] & 0xF) | ((q[j - 4] >> 6) << 4));
    m = static_cast<uint8_t>((q[j + 4] >> 4) | ((q[j] >> 6) << 4));
  }
}

void quantQ4K(const float* src, void* dst, uint64_t n) {
  encodeBlocks<Q4KBlock, kBlock256>(src, dst, n, encodeQ4K);
}

void quantQ5K(const float* src, void* dst, uint64_t n) {
  encodeBlocks<Q5KBlock, kBlock256>(src, dst, n, encodeQ5K);
}

void quantQ6K(const float* src, void* dst, uint64_t n) {
  encodeBlocks<Q6KBlock, kBlock256>(src, dst, n, encodeQ6K);
}

}  // namespace kiv::quant
