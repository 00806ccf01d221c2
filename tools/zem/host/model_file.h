// SPDX-License-Identifier: Apache-2.0
// Facts about a model file, read without a runtime.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "kiv/tokenizer.h"
#include "kiv/zem2_reader.h"

namespace zemtool {

// Opens the container; throws Failure with the file's name and the reason.
void openContainer(kiv::ZEM2Reader& reader, const std::string& path);

// The file's vocabulary. Throws Failure when it has no usable one.
kiv::Tokenizer openTokenizer(const std::string& path);

// Throws Failure unless `path` is a file that can be read.
void requireReadable(const std::string& path);

// Why every runtime would refuse the file; empty when nothing is wrong with it.
std::string modelProblem(const std::string& path);

// The metadata's "general.name", else the name of the file.
std::string modelName(const kiv::ZEM2Reader& reader, const std::string& path);

// One entry of the tensor index as the file states it.
struct TensorFacts {
  std::string name;             // raw bytes
  std::string type;             // "Q4_K", or "type 40" for a code without a name
  std::vector<uint64_t> shape;  // innermost extent first
  uint64_t elements = 0;        // saturates
  uint64_t offset = 0;
  uint64_t bytes = 0;
  bool outside = false;  // not wholly inside WeightData
};
TensorFacts tensorFacts(const kiv::ZEM2Reader& reader, size_t index);

// Sums over the tensors; names that share their bytes count once.
struct WeightTotals {
  uint64_t elements = 0;
  uint64_t bytes = 0;
  // Bytes that every token reads. An embedding table that is not the output head too does
  // not count: a token reads one row of it.
  uint64_t bytesPerToken = 0;
};
WeightTotals weightTotals(const kiv::ZEM2Reader& reader);

}  // namespace zemtool
