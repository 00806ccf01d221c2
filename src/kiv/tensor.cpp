// SPDX-License-Identifier: Apache-2.0
#include "kiv/tensor.h"

#include "kiv/quant.h"
#include "kiv/quant/quant_blocks.h"
#include "kiv/quant_k.h"

namespace kiv {
namespace {

struct DTypeLayout {
  const char* name;
  uint64_t elements;  // in a block; 0 where the layout is not known
  uint64_t bytes;     // of a block
};

DTypeLayout layoutOf(DType type) {
  using quant::kBlock256;
  using quant::kBlock32;
  switch (type) {
    case DType::F32:
      return {"F32", 1, 4};
    case DType::F16:
      return {"F16", 1, 2};
    case DType::BF16:
      return {"BF16", 1, 2};
    case DType::Q4_0:
      return {"Q4_0", kBlock32, sizeof(quant::Q40Block)};
    case DType::Q8_0:
      return {"Q8_0", kBlock32, sizeof(quant::Q80Block)};
    case DType::Q4_K:
      return {"Q4_K", kBlock256, sizeof(quant::Q4KBlock)};
    case DType::Q5_K:
      return {"Q5_K", kBlock256, sizeof(quant::Q5KBlock)};
    case DType::Q6_K:
      return {"Q6_K", kBlock256, sizeof(quant::Q6KBlock)};
    case DType::Q8_K:
      return {"Q8_K", kBlock256, sizeof(quant::Q8KBlock)};
    case DType::Q5_0:
      return {"Q5_0", 0, 0};
    case DType::Q5_1:
      return {"Q5_1", 0, 0};
  }
  return {"?", 0, 0};
}

}  // namespace

const char* dtypeName(DType type) { return layoutOf(type).name; }

uint64_t dtypeBytes(DType type, uint64_t elements) {
  const DTypeLayout layout = layoutOf(type);
  return layout.elements == 0 ? 0 : quant::blocksBytes(elements, layout.elements, layout.bytes);
}

uint64_t dtypeBlockSize(DType type) { return layoutOf(type).elements; }

}  // namespace kiv
