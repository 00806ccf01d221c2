// A published checkpoint: a folder with config.json, tokenizer.json and one or
// many safetensors files.
#pragma once

#include <string>

#include "convert/source.h"

namespace zemtool {

// Opens the folder's files and checks them and the configuration; tensors are
// named but not compared with the architecture (planConversion does that). Vision
// and prediction tensors are left out. Throws Failure.
ModelSource openCheckpoint(const std::string& folder);

}  // namespace zemtool
