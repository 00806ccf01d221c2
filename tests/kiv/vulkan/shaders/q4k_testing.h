// Q4_K blocks for the tests of shaders.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "kiv/quant_k.h"
#include "kiv/quant_testing.h"

namespace kiv::test {

inline constexpr uint32_t kQ4KBytes = sizeof(quant::Q4KBlock);

// Blocks of random bytes, with d and dmin of either sign and magnitudes from 1/8 to
// 8: far enough apart to be told from each other, too close for one to drown the rest.
inline std::vector<uint8_t> randomQ4K(uint32_t seed, size_t blocks) {
  std::vector<uint8_t> bytes = quant::testing::randomBytes(seed, blocks * kQ4KBytes);
  for (size_t block = 0; block < bytes.size(); block += kQ4KBytes) {
    for (uint8_t* high : {&bytes[block + 1], &bytes[block + 3]}) {
      const int exponent = 12 + *high / 4 % 6;
      *high = static_cast<uint8_t>((*high & 0x83) | exponent << 2);
    }
  }
  return bytes;
}

// Weights of the size that models have, by way of the encoder; their scales lie where
// half precision has no leading one.
inline std::vector<uint8_t> quantisedQ4K(uint32_t seed, size_t blocks) {
  const std::vector<float> w =
      quant::testing::randomFloats(seed, blocks * quant::kBlock256, -0.04F, 0.04F);
  std::vector<uint8_t> bytes(blocks * kQ4KBytes);
  quant::quantQ4K(w.data(), bytes.data(), w.size());
  return bytes;
}

}  // namespace kiv::test
