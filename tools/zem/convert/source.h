// SPDX-License-Identifier: Apache-2.0
// The model that a converter reads: tensors where they lie, and facts. checkpoint_source makes
// one of a published folder, gguf_source of a GGUF file.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "convert/source_tokenizer.h"
#include "kiv/container/gguf_types.h"
#include "kiv/container/mapped_file.h"
#include "kiv/model/architecture.h"

namespace zemtool {

// A tensor inside a mapped file. `data` has no particular alignment.
struct SourceTensor {
  std::string name;  // the source's own
  kiv::GgufType type = kiv::GgufType::F32;
  std::string typeName;         // the source's own; GgufType may lack the type
  std::vector<uint64_t> shape;  // innermost extent first
  const uint8_t* data = nullptr;
  uint64_t bytes = 0;
  const kiv::MappedFile* file = nullptr;
};

// The sampling that the publisher recommends; absent values are not written.
struct Sampling {
  std::optional<float> temperature;
  std::optional<uint32_t> topK;
  std::optional<float> topP;
  std::optional<float> presencePenalty;
  std::vector<uint32_t> stopIds;
};

struct LeftOut {
  size_t vision = 0;
  size_t prediction = 0;            // of layers that guess further tokens
  size_t repeated = 0;              // output heads that repeat the embedding
  std::vector<std::string> others;  // names without a place in the container
};

struct ModelSource {
  std::string format;              // "checkpoint" or "GGUF"
  std::vector<std::string> files;  // names without folders
  std::string name;
  uint32_t contextLength = 0;  // 0: not stated
  kiv::Architecture architecture;
  Sampling sampling;
  SourceTokenizer tokenizer;
  // Whether tensors have the layout of published checkpoints. GGUF files have the container's
  // layout already.
  bool checkpointLayout = false;
  std::map<std::string, SourceTensor> tensors;  // by the container's names
  LeftOut leftOut;
  // Keep alive what the tensors and the tokenizer point into.
  std::vector<std::shared_ptr<const void>> owners;
};

}  // namespace zemtool
