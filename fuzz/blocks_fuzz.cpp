// SPDX-License-Identifier: Apache-2.0
// Blocks of any bytes, and floats of any bits. Decoding part of a row gives the same
// bits as decoding all of it; encoding finite weights and decoding them again stays
// within the step of their block.
#include <algorithm>
#include <bit>
#include <cmath>
#include <string>
#include <vector>

#include "fuzz.h"
#include "kiv/dequant.h"
#include "kiv/quant.h"
#include "kiv/quant/row_codec.h"
#include "kiv/quant_k.h"

namespace {

using zemfuzz::require;

struct Codec {
  kiv::QuantType type;
  kiv::DType stored;
  size_t block;
  void (*encode)(const float*, void*, uint64_t);  // null: there is none
  void (*decode)(const void*, float*, uint64_t);
};

constexpr Codec kCodecs[] = {
    {kiv::QuantType::Q4_0, kiv::DType::Q4_0, 32, kiv::quant::quantQ40, kiv::quant::dequantQ40},
    {kiv::QuantType::Q8_0, kiv::DType::Q8_0, 32, kiv::quant::quantQ80, kiv::quant::dequantQ80},
    {kiv::QuantType::Q4_K, kiv::DType::Q4_K, 256, kiv::quant::quantQ4K, kiv::quant::dequantQ4K},
    {kiv::QuantType::Q5_K, kiv::DType::Q5_K, 256, kiv::quant::quantQ5K, kiv::quant::dequantQ5K},
    {kiv::QuantType::Q6_K, kiv::DType::Q6_K, 256, kiv::quant::quantQ6K, kiv::quant::dequantQ6K},
};

bool sameBits(const std::vector<float>& a, const std::vector<float>& b, size_t count) {
  return count == 0 || std::memcmp(a.data(), b.data(), count * sizeof(float)) == 0;
}

// `bytes` cut to whole blocks, in a buffer without a byte to spare.
void decodeParts(const Codec& codec, const std::string& bytes, size_t part) {
  const size_t blockBytes = kiv::quant::quantizedBytes(codec.type, codec.block);
  const size_t blocks = bytes.size() / blockBytes;
  const zemfuzz::Bytes exact(bytes.begin(),
                             bytes.begin() + static_cast<std::ptrdiff_t>(blocks * blockBytes));
  std::vector<float> whole(blocks * codec.block);
  codec.decode(exact.data(), whole.data(), whole.size());
  part = whole.empty() ? 0 : part % (whole.size() + 1);
  const size_t needed = kiv::quant::quantizedBytes(codec.type, part);
  require(needed <= exact.size(), "a part takes more bytes than the whole");
  const zemfuzz::Bytes front(exact.begin(), exact.begin() + static_cast<std::ptrdiff_t>(needed));
  std::vector<float> some(part);
  codec.decode(front.data(), some.data(), part);
  require(sameBits(whole, some, part), "a part decodes to other bits");
}

void decodeQ8K(const std::string& bytes, size_t count) {
  const zemfuzz::Bytes exact(bytes.begin(), bytes.end());
  const size_t room = bytes.size() / sizeof(kiv::quant::Q8KBlock) * kiv::quant::kBlock256;
  count = std::min(count, room);
  std::vector<float> out(count, 1.25F);
  kiv::quant::dequantQ8K(exact.data(), out.data(), count);
  for (size_t i = count / 256 * 256; i < count; ++i) {
    require(out[i] == 1.25F, "an element behind the last whole block was written");
  }
}

// What rounding a scale to half precision can change it by.
double halfError(double scale) { return std::fabs(scale) * 0x1p-11 + 0x1p-25; }

// How far an element of a block may end from where it began, for elements between
// `low` and `high` whose scales half precision can hold, and whose sub-blocks lie no
// further above zero than `cut`: a minimum above zero is stored as zero.
double bound(kiv::QuantType type, double low, double high, double cut) {
  const double magnitude = std::max(std::fabs(low), std::fabs(high));
  const double offset = std::max(0.0, -low);
  const double range = high - low;
  switch (type) {
    case kiv::QuantType::Q4_0:
      return magnitude / 8 + 8 * halfError(magnitude / 8);
    case kiv::QuantType::Q8_0:
      return magnitude / 254 + 128 * halfError(magnitude / 127);
    // Half a step, the rounding of 6-bit scales and minima and of the two scales
    // above them, over all steps. A scale that falls short cuts the largest.
    case kiv::QuantType::Q4_K:
      return cut + range / 30 + range / 126 + offset / 126 + 63 * 15 * halfError(range / 945) +
             63 * halfError(offset / 63) + range / 60;
    case kiv::QuantType::Q5_K:
      return cut + range / 62 + range / 126 + offset / 126 + 63 * 31 * halfError(range / 1953) +
             63 * halfError(offset / 63) + range / 60;
    default:
      return magnitude / 62 + magnitude / 254 + 127 * 32 * halfError(magnitude / 3937) +
             magnitude / 62;
  }
}

// The largest minimum of the sub-blocks of 32, of which the last may be padded.
double largestMinimum(const float* x, size_t count) {
  double largest = 0;
  for (size_t at = 0; at + 32 <= count; at += 32) {
    largest = std::max(largest, double{*std::min_element(x + at, x + at + 32)});
  }
  return largest;
}

void checkBlock(const Codec& codec, const float* x, const float* y, size_t count) {
  const auto [least, most] = std::minmax_element(x, x + count);
  // Zeros fill the block where the row ends.
  const bool padded = count < codec.block;
  const double low = padded ? std::min(0.0F, *least) : *least;
  const double high = padded ? std::max(0.0F, *most) : *most;
  const double allowed = 1.001 * bound(codec.type, low, high, largestMinimum(x, count));
  for (size_t i = 0; i < count; ++i) {
    require(std::fabs(double{x[i]} - double{y[i]}) <= allowed, "a round trip strays");
  }
}

// Weights as models have them: NaN, infinities and what half-precision scales
// cannot span become something that they can.
std::vector<float> tamed(const std::vector<float>& any) {
  std::vector<float> x = any;
  for (float& v : x) {
    if (!std::isfinite(v)) v = 0.5F;
    while (std::fabs(v) > 1024.0F) v *= 0x1p-16F;
  }
  return x;
}

std::vector<float> throughCodec(const Codec& codec, const std::vector<float>& x) {
  zemfuzz::Bytes stored(kiv::quant::quantizedBytes(codec.type, x.size()));
  codec.encode(x.data(), stored.data(), x.size());
  std::vector<float> y(x.size());
  codec.decode(stored.data(), y.data(), y.size());
  return y;
}

void encodeAny(const Codec& codec, const std::vector<float>& any) {
  throughCodec(codec, any);
  const std::vector<float> x = tamed(any);
  const std::vector<float> y = throughCodec(codec, x);
  for (size_t at = 0; at < x.size(); at += codec.block) {
    checkBlock(codec, &x[at], &y[at], std::min(codec.block, x.size() - at));
  }
  if (!kiv::hasRowCodec(codec.stored)) return;
  zemfuzz::Bytes row(kiv::dtypeBytes(codec.stored, x.size()));
  kiv::encodeRow(codec.stored, x.data(), x.size(), row.data());
  require(kiv::rowIsFinite(codec.stored, row.data(), row.size()), "finite weights, infinite scale");
}

void checkHalf(uint16_t half) {
  const float wide = kiv::quant::f16ToF32(half);
  const uint16_t back = kiv::quant::f32ToF16(wide);
  const bool nan = std::isnan(wide);
  require(back == (nan ? (half & 0x8000) | 0x7E00 : half), "a half does not come back");
}

void checkPlainRow(kiv::DType type, const std::vector<float>& any) {
  zemfuzz::Bytes row(kiv::dtypeBytes(type, any.size()));
  kiv::encodeRow(type, any.data(), any.size(), row.data());
  std::vector<float> back(any.size());
  kiv::decodeRow(type, row.data(), any.size(), back.data());
  for (size_t i = 0; i < any.size(); ++i) {
    require(std::isnan(any[i]) == std::isnan(back[i]), "NaN came or went");
    const bool same = std::bit_cast<uint32_t>(any[i]) == std::bit_cast<uint32_t>(back[i]);
    require(same || type == kiv::DType::BF16, "a float does not come back");
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  zemfuzz::Input in(data, size);
  const Codec& codec = kCodecs[in.byte() % std::size(kCodecs)];
  const size_t part = in.number(2);
  const std::string bytes = in.rest();
  decodeParts(codec, bytes, part);
  decodeQ8K(bytes, part);

  std::vector<float> any(std::min<size_t>(bytes.size() / sizeof(float), 600));
  if (any.empty()) return 0;
  std::memcpy(any.data(), bytes.data(), any.size() * sizeof(float));
  encodeAny(codec, any);
  checkPlainRow(kiv::DType::F32, any);
  checkPlainRow(kiv::DType::BF16, any);
  checkHalf(static_cast<uint16_t>(part));
  return 0;
}
