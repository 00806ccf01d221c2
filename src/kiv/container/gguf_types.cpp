// SPDX-License-Identifier: Apache-2.0
#include "kiv/container/gguf_types.h"

#include <array>
#include <cstddef>
#include <cstring>

#include "kiv/dequant.h"
#include "kiv/quant.h"
#include "kiv/quant/bf16.h"
#include "kiv/quant/quant_blocks.h"
#include "kiv/quant_k.h"

namespace kiv {
namespace {

using quant::decodeBlocks;
using quant::f16ToF32;

#pragma pack(push, 1)

// In the 32-element records nibble k is the low half of byte k for the first 16
// elements and the high half of byte k - 16 for the others.
struct Block40 {
  uint16_t d;
  uint8_t qs[16];
};
struct Block41 {
  uint16_t d;
  uint16_t m;
  uint8_t qs[16];
};
struct Block50 {
  uint16_t d;
  uint32_t high;  // bit k is the fifth bit of element k
  uint8_t qs[16];
};
struct Block51 {
  uint16_t d;
  uint16_t m;
  uint32_t high;
  uint8_t qs[16];
};

// 16 sub-blocks of 16; the low nibble of scales[j] scales, the high one is the minimum.
struct Block2K {
  uint8_t scales[16];
  uint8_t qs[64];
  uint16_t d;
  uint16_t dmin;
};
// 16 sub-blocks of 16 with 6-bit scales and a third bit in `high`.
struct Block3K {
  uint8_t high[32];
  uint8_t qs[64];
  uint8_t scales[12];
  uint16_t d;
};
// 8 sub-blocks of 32 with 6-bit scales and the value table below.
struct Block4XS {
  uint16_t d;
  uint16_t scalesHigh;
  uint8_t scalesLow[4];
  uint8_t qs[128];
};

#pragma pack(pop)

static_assert(sizeof(Block40) == 18 && sizeof(Block41) == 20 && sizeof(Block50) == 22 &&
              sizeof(Block51) == 24 && sizeof(Block2K) == 84 && sizeof(Block3K) == 110 &&
              sizeof(Block4XS) == 136);

// What the codes of the two IQ4 types stand for.
constexpr std::array<int8_t, 16> kUnevenValues = {-127, -104, -83, -65, -49, -35, -22, -10,
                                                  1,    13,   25,  38,  53,  69,  89,  113};

unsigned low(uint8_t byte) { return byte & 0xFU; }
unsigned high(uint8_t byte) { return byte >> 4U; }

float asFloat(int value) { return static_cast<float>(value); }
float asFloat(unsigned value) { return static_cast<float>(value); }

void decode40(const Block40& block, float* y) {
  const float d = f16ToF32(block.d);
  for (size_t k = 0; k < 16; ++k) {
    y[k] = asFloat(static_cast<int>(low(block.qs[k])) - 8) * d;
    y[k + 16] = asFloat(static_cast<int>(high(block.qs[k])) - 8) * d;
  }
}

void decode41(const Block41& block, float* y) {
  const float d = f16ToF32(block.d);
  const float m = f16ToF32(block.m);
  for (size_t k = 0; k < 16; ++k) {
    y[k] = asFloat(low(block.qs[k])) * d + m;
    y[k + 16] = asFloat(high(block.qs[k])) * d + m;
  }
}

unsigned fifthBit(uint32_t bits, size_t k) { return (bits >> k & 1U) << 4U; }

void decode50(const Block50& block, float* y) {
  const float d = f16ToF32(block.d);
  const uint32_t bits = block.high;
  for (size_t k = 0; k < 16; ++k) {
    y[k] = asFloat(static_cast<int>(low(block.qs[k]) | fifthBit(bits, k)) - 16) * d;
    y[k + 16] = asFloat(static_cast<int>(high(block.qs[k]) | fifthBit(bits, k + 16)) - 16) * d;
  }
}

void decode51(const Block51& block, float* y) {
  const float d = f16ToF32(block.d);
  const float m = f16ToF32(block.m);
  const uint32_t bits = block.high;
  for (size_t k = 0; k < 16; ++k) {
    y[k] = asFloat(low(block.qs[k]) | fifthBit(bits, k)) * d + m;
    y[k + 16] = asFloat(high(block.qs[k]) | fifthBit(bits, k + 16)) * d + m;
  }
}

// Element e of a 2-bit array: half e / 128, four elements a byte, 32 bytes apart.
unsigned twoBits(const uint8_t* qs, size_t e) {
  return qs[e / 128 * 32 + e % 32] >> (e % 128 / 32 * 2) & 3U;
}

void decode2K(const Block2K& block, float* y) {
  const float d = f16ToF32(block.d);
  const float dmin = f16ToF32(block.dmin);
  for (size_t e = 0; e < 256; ++e) {
    const uint8_t scale = block.scales[e / 16];
    y[e] = asFloat(twoBits(block.qs, e)) * (d * asFloat(low(scale))) - dmin * asFloat(high(scale));
  }
}

// The low four bits of scales 8 to 15 are the high nibbles of bytes 0 to 7; the
// upper two bits of scale j lie in byte 8 + j % 4.
int scale3K(const Block3K& block, size_t j) {
  const unsigned lower = j < 8 ? low(block.scales[j]) : high(block.scales[j - 8]);
  const unsigned upper = block.scales[8 + j % 4] >> (j / 4 * 2) & 3U;
  return static_cast<int>(lower | upper << 4U) - 32;
}

void decode3K(const Block3K& block, float* y) {
  const float d = f16ToF32(block.d);
  for (size_t e = 0; e < 256; ++e) {
    const bool set = (block.high[e % 32] >> (e / 32) & 1U) != 0;
    const int code = static_cast<int>(twoBits(block.qs, e)) - (set ? 0 : 4);
    y[e] = asFloat(code) * (d * asFloat(scale3K(block, e / 16)));
  }
}

void decode4NL(const Block40& block, float* y) {
  const float d = f16ToF32(block.d);
  for (size_t k = 0; k < 16; ++k) {
    y[k] = asFloat(kUnevenValues[low(block.qs[k])]) * d;
    y[k + 16] = asFloat(kUnevenValues[high(block.qs[k])]) * d;
  }
}

void decode4XS(const Block4XS& block, float* y) {
  const float d = f16ToF32(block.d);
  const unsigned upper = block.scalesHigh;
  for (size_t j = 0; j < 8; ++j) {
    const uint8_t pair = block.scalesLow[j / 2];
    const unsigned lower = j % 2 == 0 ? low(pair) : high(pair);
    const float scale = d * asFloat(static_cast<int>(lower | (upper >> (2 * j) & 3U) << 4U) - 32);
    for (size_t k = 0; k < 16; ++k) {
      const uint8_t codes = block.qs[16 * j + k];
      y[32 * j + k] = asFloat(kUnevenValues[low(codes)]) * scale;
      y[32 * j + k + 16] = asFloat(kUnevenValues[high(codes)]) * scale;
    }
  }
}

void widenF16(const void* src, float* dst, uint64_t n) {
  const auto* from = static_cast<const uint8_t*>(src);
  for (uint64_t i = 0; i < n; ++i) {
    uint16_t half = 0;
    std::memcpy(&half, from + 2 * i, sizeof half);
    dst[i] = f16ToF32(half);
  }
}

struct Layout {
  const char* name;
  uint64_t elements;
  uint64_t bytes;
};

Layout ggufLayoutOf(GgufType type) {
  switch (type) {
    case GgufType::F32:
      return {"F32", 1, 4};
    case GgufType::F16:
      return {"F16", 1, 2};
    case GgufType::BF16:
      return {"BF16", 1, 2};
    case GgufType::Q4_0:
      return {"Q4_0", 32, sizeof(Block40)};
    case GgufType::Q4_1:
      return {"Q4_1", 32, sizeof(Block41)};
    case GgufType::Q5_0:
      return {"Q5_0", 32, sizeof(Block50)};
    case GgufType::Q5_1:
      return {"Q5_1", 32, sizeof(Block51)};
    case GgufType::Q8_0:
      return {"Q8_0", 32, sizeof(quant::Q80Block)};
    case GgufType::Q2_K:
      return {"Q2_K", 256, sizeof(Block2K)};
    case GgufType::Q3_K:
      return {"Q3_K", 256, sizeof(Block3K)};
    case GgufType::Q4_K:
      return {"Q4_K", 256, sizeof(quant::Q4KBlock)};
    case GgufType::Q5_K:
      return {"Q5_K", 256, sizeof(quant::Q5KBlock)};
    case GgufType::Q6_K:
      return {"Q6_K", 256, sizeof(quant::Q6KBlock)};
    case GgufType::IQ4_NL:
      return {"IQ4_NL", 32, sizeof(Block40)};
    case GgufType::IQ4_XS:
      return {"IQ4_XS", 256, sizeof(Block4XS)};
  }
  return {"?", 0, 0};
}

}  // namespace

const char* ggufTypeName(GgufType type) { return ggufLayoutOf(type).name; }
uint64_t ggufBlockSize(GgufType type) { return ggufLayoutOf(type).elements; }
uint64_t ggufBlockBytes(GgufType type) { return ggufLayoutOf(type).bytes; }

bool ggufStoredAs(GgufType type, DType& stored) {
  switch (type) {
    case GgufType::F32:
      stored = DType::F32;
      return true;
    case GgufType::BF16:
      stored = DType::BF16;
      return true;
    case GgufType::Q8_0:
      stored = DType::Q8_0;
      return true;
    case GgufType::Q4_K:
      stored = DType::Q4_K;
      return true;
    case GgufType::Q5_K:
      stored = DType::Q5_K;
      return true;
    case GgufType::Q6_K:
      stored = DType::Q6_K;
      return true;
    default:
      return false;
  }
}

void widenGguf(GgufType type, const void* src, float* dst, uint64_t n) {
  switch (type) {
    case GgufType::F32:
      std::memcpy(dst, src, n * sizeof(float));
      return;
    case GgufType::F16:
      return widenF16(src, dst, n);
    case GgufType::BF16:
      return widenBf16(src, n, dst);
    case GgufType::Q4_0:
      return decodeBlocks<Block40, 32>(src, dst, n, decode40);
    case GgufType::Q4_1:
      return decodeBlocks<Block41, 32>(src, dst, n, decode41);
    case GgufType::Q5_0:
      return decodeBlocks<Block50, 32>(src, dst, n, decode50);
    case GgufType::Q5_1:
      return decodeBlocks<Block51, 32>(src, dst, n, decode51);
    case GgufType::Q8_0:
      return quant::dequantQ80(src, dst, n);
    case GgufType::Q2_K:
      return decodeBlocks<Block2K, 256>(src, dst, n, decode2K);
    case GgufType::Q3_K:
      return decodeBlocks<Block3K, 256>(src, dst, n, decode3K);
    case GgufType::Q4_K:
      return quant::dequantQ4K(src, dst, n);
    case GgufType::Q5_K:
      return quant::dequantQ5K(src, dst, n);
    case GgufType::Q6_K:
      return quant::dequantQ6K(src, dst, n);
    case GgufType::IQ4_NL:
      return decodeBlocks<Block40, 32>(src, dst, n, decode4NL);
    case GgufType::IQ4_XS:
      return decodeBlocks<Block4XS, 256>(src, dst, n, decode4XS);
  }
}

}  // namespace kiv
