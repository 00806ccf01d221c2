// SPDX-License-Identifier: Apache-2.0
// The sizes of the model in a container.
#pragma once

#include "kiv/model/architecture.h"
#include "kiv/status.h"
#include "kiv/zem_loader.h"

namespace zem {

using Shape = kiv::Architecture;

// Reads the sizes from the metadata, and the kind of each layer and whether there is a head of its
// own from the tensors. A key that is missing has the value of the models with 32 layers; width,
// feed-forward block and vocabulary then follow from the tensors. Values that the kernels cannot
// compute with are refused: InvalidFormat, naming the key, what was found and what is needed.
// The tensors' extents are not looked at beyond that; checkTensors does it.
kiv::Status readShape(const kiv::ZEMLoader& loader, Shape& shape);

// Whether the file has every tensor of a model of this shape, each with the type and extents that
// the decoder computes with and its bytes inside the file. InvalidFormat names the first tensor
// that is wrong, what was found, and the metadata key that asks for something else.
kiv::Status checkTensors(const kiv::ZEMLoader& loader, const Shape& shape);

}  // namespace zem
