// SPDX-License-Identifier: Apache-2.0
// The file that QWEN35_HID_DUMP appends the hidden states of a token to.
#pragma once

#include <cstddef>
#include <cstdio>
#include <memory>
#include <vector>

namespace qwen35 {

// Records lie back to back: u32 position, u32 name length, name, u64 count, floats, all little-
// endian.
class HiddenDump {
 public:
  // Writes nothing.
  HiddenDump() = default;
  // Appends to the file that QWEN35_HID_DUMP names. Writes nothing when the variable is not set or
  // the file cannot be opened.
  static HiddenDump ofVariable(size_t pos);

  void write(const char* name, const std::vector<float>& x);
  // As write(), under the name "S<il>.<what>".
  void writeLayer(size_t il, const char* what, const std::vector<float>& x);

 private:
  struct Close {
    void operator()(std::FILE* file) const { std::fclose(file); }
  };
  std::unique_ptr<std::FILE, Close> file_;
  size_t pos_ = 0;
};

}  // namespace qwen35
