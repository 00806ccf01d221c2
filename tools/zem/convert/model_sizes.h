// SPDX-License-Identifier: Apache-2.0
// The sizes of a model that is to be converted: what its publisher states and what its tensors
// show, brought together.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>

#include "convert/source.h"
#include "kiv/model/architecture.h"

namespace zemtool {

enum class Size : uint8_t {
  Layers,
  FullEvery,
  Width,
  FeedForward,
  Vocabulary,
  Heads,
  KvHeads,
  HeadSize,
  RotarySize,
  KeyHeads,
  ValueHeads,
  StateSize,
};
inline constexpr size_t kSizes = static_cast<size_t>(Size::StateSize) + 1;

// Blocks that a model may have.
inline constexpr uint64_t kMaxLayers = 1024;

// What a publisher's metadata states.
struct StatedSizes {
  std::string path;                      // of the metadata, for messages
  std::array<std::string, kSizes> keys;  // as the metadata spells them
  std::array<std::optional<uint64_t>, kSizes> values;
  // The part of a head that is rotated, where the metadata states it in place of RotarySize.
  std::optional<double> rotaryPart;

  std::string& key(Size size) { return keys[static_cast<size_t>(size)]; }
  const std::string& key(Size size) const { return keys[static_cast<size_t>(size)]; }
  std::optional<uint64_t>& value(Size size) { return values[static_cast<size_t>(size)]; }
  const std::optional<uint64_t>& value(Size size) const {
    return values[static_cast<size_t>(size)];
  }
};

// The architecture of the source's tensors. A size that is not stated follows from the tensors,
// or else is that of kiv::Architecture; a quarter of each head is rotated. Throws Failure, with
// the key, what was found and what is needed, for a size that the tensors contradict and for one
// that the decoder cannot compute with. Only some tensors are looked at; planConversion() checks
// them all.
kiv::Architecture settleSizes(const ModelSource& source, const StatedSizes& stated);

}  // namespace zemtool
