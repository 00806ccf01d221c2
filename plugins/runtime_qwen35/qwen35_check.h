// SPDX-License-Identifier: Apache-2.0
/// \file
/// Whether the forward pass may read a bound model's weights.
#pragma once

#include "kiv/status.h"
#include "kiv/zem_loader.h"
#include "qwen35_model.h"

namespace qwen35 {

/// Checks the weights before anything is computed. A container opens and binds
/// whatever its tensor entries say, so that people can inspect it. Here every bound
/// tensor must have the extents that the decoder's dimensions ask for, a type that the
/// decoder reads, and its bytes inside WeightData. Of these tensors the check covers what the
/// forward pass reads and no more. A file with an output head that is not the embedding, or with
/// a block 32 that is not one that predicts further tokens, is refused: the forward pass would
/// leave it out. The message names the first bad tensor, what was found and
/// what is needed.
kiv::Status checkWeights(const kiv::ZEMLoader& ld, const Model& m);

}  // namespace qwen35
