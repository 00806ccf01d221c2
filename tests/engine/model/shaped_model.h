// SPDX-License-Identifier: Apache-2.0
// A whole model of any sizes, with random weights.
#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "engine/model/weights.h"
#include "kiv/model/architecture.h"
#include "kiv/tensor.h"
#include "kiv/zem2_writer.h"
#include "support/temp_file.h"

namespace zemtest {

// Eight layers, every fourth with full attention, and small sizes that no kernel divides evenly.
kiv::Architecture smallArchitecture();

// Writes the model with metadata and the tiny tokenizer. `type` is that of the matrices; K types
// need a width, a feed-forward block and heads of whole blocks.
void writeShapedModel(const TempFile& file, const kiv::Architecture& architecture,
                      kiv::DType type = kiv::DType::F32, uint32_t seed = 1);

// Adds metadata and tensors of such a model, and writes the container.
void finishShapedModel(kiv::ZEM2Writer& writer, const TempFile& file,
                       const kiv::Architecture& architecture, kiv::DType type, uint32_t seed);

// The model opened. Throws std::runtime_error with the message of a failure.
std::unique_ptr<zem::Weights> openWeights(const TempFile& file);

// Ids below `vocabulary` that follow from the seed.
std::vector<uint32_t> randomIds(size_t count, size_t vocabulary, uint32_t seed);

}  // namespace zemtest
