// SPDX-License-Identifier: Apache-2.0
// How a published checkpoint names its tensors and lays them out, where the container
// differs.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <string_view>

#include "kiv/model/architecture.h"

namespace zemtool {

// The checkpoint's name for a tensor, without the prefix that all of them have:
// "layers.3.self_attn.q_proj.weight".
std::string checkpointName(kiv::TensorRole role, uint32_t layer);

struct TensorPlace {
  kiv::TensorRole role = kiv::TensorRole::Embedding;
  uint32_t layer = 0;  // 0 too for a tensor of the model
};

// Finds what the tensor of a name is for. Any thread.
class TensorNames {
 public:
  using NameOf = std::string (*)(kiv::TensorRole, uint32_t);

  // `nameOf` spells the names: checkpointName or kiv::tensorName.
  explicit TensorNames(NameOf nameOf);

  // Nothing for a name that `nameOf` never gives.
  std::optional<TensorPlace> find(std::string_view name) const;

 private:
  NameOf nameOf_;
  std::map<std::string, kiv::TensorRole, std::less<>> ofLayer0_;
};

// An order of rows or columns that come in runs, one a value head. The checkpoint puts the
// value heads of a key head next to each other; the container deals them out.
struct HeadOrder {
  uint64_t first = 0;  // what lies before it stays where it is
  uint64_t run = 0;    // of indexes; 0: nothing moves
  uint64_t keyHeads = 1;
  uint64_t headsPerKey = 1;

  // The checkpoint's index of the container's index `i`.
  uint64_t source(uint64_t i) const {
    if (run == 0 || i < first) return i;
    const uint64_t head = (i - first) / run;
    return first + (head % keyHeads * headsPerKey + head / keyHeads) * run + (i - first) % run;
  }
};

enum class ElementChange { None, PlusOne, NegativeExp };

// What turns the checkpoint's tensor into the container's.
struct LayoutChange {
  HeadOrder rows;
  HeadOrder columns;
  ElementChange elements = ElementChange::None;
};

LayoutChange changeFromCheckpoint(const kiv::Architecture& architecture, kiv::TensorRole role);

}  // namespace zemtool
