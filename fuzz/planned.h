// SPDX-License-Identifier: Apache-2.0
// A source of weights as a conversion would take it, up to the first byte written.
#pragma once

#include "convert/convert_tokenizer.h"
#include "convert/source.h"
#include "convert/tensor_plan.h"
#include "fuzz.h"

namespace zemfuzz {

// Plans the conversion of `source`. Throws zemtool::Failure for what cannot be converted.
inline void planWhole(zemtool::ModelSource source, zemtool::WeightMix mix, bool recode) {
  const uint64_t rows = source.architecture.vocabulary;
  zemtool::planConversion(source, mix, recode);
  zemtool::TokenizerCounts counts;
  require(zemtool::convertTokenizer(source.tokenizer, rows, counts).tokens.size() == rows,
          "rows without a token");
}

}  // namespace zemfuzz
