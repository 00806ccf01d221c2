// What the diagnostic environment variables print and dump. The variables are
// read at each call, so that a host can switch them on while it runs.
#pragma once

#include <cstddef>
#include <cstdio>
#include <memory>

#include "qwen35_model.h"

namespace qwen35 {

// Whether the environment variable `name` is set, to anything.
bool diagnosticSet(const char* name);

// Whether a variable is set whose trace or effect belongs to one token at a time.
bool tokensTracedSingly();

// Euclidean norm, accumulated in double.
double norm(const float* x, size_t n);

// QWEN35_ABLATE: leaves one kind of attention layer out.
enum class Ablation { None, Full, Linear };
Ablation ablation();

// QWEN35_HID_DUMP: appends the hidden states of one token to a file, records
// back to back: u32 position, u32 name length, name, u64 count, floats. Does
// nothing when the variable is not set or the file cannot be opened.
class HiddenDump {
 public:
  explicit HiddenDump(size_t pos);
  bool active() const { return file_ != nullptr; }
  void write(const char* name, const float* x, size_t n);
  // As write(), under the name "S<il>.<what>".
  void writeLayer(size_t il, const char* what, const float* x, size_t n);

 private:
  struct Close {
    void operator()(std::FILE* file) const { std::fclose(file); }
  };
  std::unique_ptr<std::FILE, Close> file_;
  size_t pos_;
};

}  // namespace qwen35
