// SPDX-License-Identifier: Apache-2.0
#include "kiv/zem2.h"

#include <array>

namespace kiv::zem2 {
namespace {

constexpr uint64_t kPolynomial = 0x42F0E1EBA9EA3693;

constexpr std::array<uint64_t, 256> makeTable() {
  std::array<uint64_t, 256> table{};
  for (uint64_t i = 0; i < table.size(); ++i) {
    uint64_t c = i;
    for (int bit = 0; bit < 8; ++bit) c = (c >> 1) ^ ((c & 1) != 0 ? kPolynomial : 0);
    table[i] = c;
  }
  return table;
}

constexpr std::array<uint64_t, 256> kTable = makeTable();
static_assert(kTable[1] == 0x3C3B78E888D80FE1 && kTable[128] == kPolynomial);

}  // namespace

uint64_t crc64Update(uint64_t crc, const uint8_t* data, size_t len) {
  for (size_t i = 0; i < len; ++i) crc = (crc >> 8) ^ kTable[(data[i] ^ crc) & 0xFF];
  return crc;
}

uint64_t crc64(const uint8_t* data, size_t len) { return crc64Update(0, data, len); }

}  // namespace kiv::zem2
