// SPDX-License-Identifier: Apache-2.0
// Reads little-endian numbers and strings from bytes that may hold anything.
#pragma once

#include <bit>
#include <concepts>
#include <cstddef>
#include <cstdint>
#include <string>

namespace kiv {

// A position in `size` bytes at `data`, which must outlive the cursor. Every
// read either succeeds whole and moves on, or returns false and changes
// nothing. Numbers may lie at any address.
class ByteCursor {
 public:
  ByteCursor(const uint8_t* data, uint64_t size) : data_(data), remaining_(size) {}

  uint64_t remaining() const { return remaining_; }

  template <std::unsigned_integral T>
  bool read(T& out) {
    if (remaining_ < sizeof(T)) return false;
    uint64_t value = 0;
    for (size_t i = 0; i < sizeof(T); ++i) value |= static_cast<uint64_t>(data_[i]) << (8 * i);
    out = static_cast<T>(value);
    skip(sizeof(T));
    return true;
  }

  bool read(int32_t& out) { return readBits(out); }
  bool read(float& out) { return readBits(out); }

  bool read(std::string& out, uint64_t length) {
    if (remaining_ < length) return false;
    out.assign(reinterpret_cast<const char*>(data_), length);
    skip(length);
    return true;
  }

  // The next `length` bytes where they lie.
  bool view(const uint8_t*& out, uint64_t length) {
    if (remaining_ < length) return false;
    out = data_;
    skip(length);
    return true;
  }

 private:
  template <typename T>
  bool readBits(T& out) {
    uint32_t bits = 0;
    if (!read(bits)) return false;
    out = std::bit_cast<T>(bits);
    return true;
  }

  void skip(uint64_t count) {
    data_ += count;
    remaining_ -= count;
  }

  const uint8_t* data_;
  uint64_t remaining_;
};

}  // namespace kiv
