// SPDX-License-Identifier: Apache-2.0
// A model published as one GGUF file.
#pragma once

#include <string>

#include "convert/source.h"

namespace zemtool {

// Opens a GGUF file of the architecture "qwen35" and checks its metadata; tensors
// are not compared with the architecture (planConversion does that). Vision tensors
// and those of a prediction layer are left out. Throws Failure.
ModelSource openGguf(const std::string& path);

}  // namespace zemtool
