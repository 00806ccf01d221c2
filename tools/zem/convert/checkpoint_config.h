// SPDX-License-Identifier: Apache-2.0
// The facts of a published checkpoint's JSON files, without its tokenizer.
#pragma once

#include <optional>
#include <string>

#include "convert/json_file.h"
#include "convert/model_sizes.h"
#include "convert/source.h"

namespace zemtool {

struct CheckpointConfig {
  uint32_t contextLength = 0;  // 0: not stated
  int32_t eosId = -1;          // negative: not stated
  StatedSizes sizes;
  std::optional<bool> tied;  // whether the embedding is the output head
  std::string tiedKey;       // with its file, for messages
};

// Reads config.json, with the values at the root or under "text_config". Values that
// are no sizes must be those that the decoder computes with. Throws Failure, which names the key,
// what was found and what is needed.
CheckpointConfig readCheckpointConfig(const std::string& folder);

// generation_config.json, if there is one.
Sampling readSampling(const std::string& folder);

// A token id, or the first of a list of them; negative where there is none.
int32_t tokenIdOf(const json* value);

}  // namespace zemtool
