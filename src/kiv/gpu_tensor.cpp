// SPDX-License-Identifier: Apache-2.0
#include "kiv/gpu_tensor.h"

#include "kiv/quant_k.h"

namespace kiv {

uint64_t GPUTensorView::rowBytes() const {
  if (quant.bytesPerBlock == 0) return size;
  const uint64_t blocks = shape[0] / quant::kBlock256 + (shape[0] % quant::kBlock256 != 0 ? 1 : 0);
  return blocks * quant.bytesPerBlock;
}

}  // namespace kiv
