// The one architecture that can be converted, as the tensors of its container.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace zemtool {

inline constexpr uint32_t kLayers = 32;
inline constexpr uint32_t kFullEvery = 4;  // layers 3, 7, ... have full attention
inline constexpr uint64_t kHeads = 16;
inline constexpr uint64_t kKvHeads = 4;
inline constexpr uint64_t kHeadSize = 256;
inline constexpr uint64_t kRotarySize = 64;
inline constexpr uint64_t kKeyHeads = 16;
inline constexpr uint64_t kValueHeads = 32;
inline constexpr uint64_t kStateSize = 128;
inline constexpr uint64_t kTaps = 4;
inline constexpr uint64_t kKeyRows = 2 * kKeyHeads * kStateSize;  // of queries and keys
inline constexpr uint64_t kInner = kValueHeads * kStateSize;
inline constexpr uint64_t kChannels = kKeyRows + kInner;
inline constexpr double kRotaryBase = 1e7;
inline constexpr double kNormEpsilon = 1e-6;

// What differs between models of the architecture; read from the tensors.
struct ModelWidths {
  uint64_t width = 0;
  uint64_t feedForward = 0;
  uint64_t vocabulary = 0;
};

struct ExpectedTensor {
  std::string name;             // the container's
  std::vector<uint64_t> shape;  // innermost extent first
  bool matrix = false;          // may be quantised; everything else is F32
  bool optional = false;
};

// Every tensor of a container, the optional ones included.
std::vector<ExpectedTensor> expectedTensors(const ModelWidths& widths);

bool isFullAttention(uint32_t layer);

// "attn_q.weight" of "blk.3.attn_q.weight"; names outside the blocks as they are.
std::string suffixOf(const std::string& name);

// Container value head `h` is this one of a published checkpoint, which puts the
// two heads of a key head next to each other; the container deals them out.
constexpr uint64_t checkpointValueHead(uint64_t h) {
  return h % kKeyHeads * (kValueHeads / kKeyHeads) + h / kKeyHeads;
}

}  // namespace zemtool
