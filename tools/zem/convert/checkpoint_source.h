// SPDX-License-Identifier: Apache-2.0
// A published checkpoint: a folder with config.json, tokenizer.json and one or
// many safetensors files.
#pragma once

#include <string>

#include "convert/source.h"

namespace zemtool {

// Opens the folder's files and checks them and the configuration. Names the tensors but does
// not compare them with the architecture; planConversion() does that. Leaves vision and
// prediction tensors out. Throws Failure.
ModelSource openCheckpoint(const std::string& folder);

}  // namespace zemtool
