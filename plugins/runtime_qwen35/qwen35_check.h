/// \file
/// Whether the forward pass may read a bound model's weights.
#pragma once

#include "kiv/status.h"
#include "kiv/zem_loader.h"
#include "qwen35_model.h"

namespace qwen35 {

/// A container opens and binds whatever its tensor entries say, so that it can
/// be inspected. This is the check before computing: every bound tensor has the
/// extents that the decoder's dimensions ask for, a type that it can read, and
/// its bytes inside WeightData. It asks for what the forward pass will read and
/// no more. The message names the first bad tensor, what was found and what is
/// needed.
kiv::Status checkWeights(const kiv::ZEMLoader& ld, const Model& m);

}  // namespace qwen35
