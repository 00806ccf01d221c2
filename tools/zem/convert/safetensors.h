// SPDX-License-Identifier: Apache-2.0
// Reads the table of a safetensors file: a JSON header in front of the tensors.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "kiv/container/mapped_file.h"

namespace zemtool {

struct SafetensorsEntry {
  std::string name;
  std::string type;             // "F32", "BF16", "F8_E4M3", ...: as the file says
  std::vector<uint64_t> shape;  // outermost extent first
  const uint8_t* data = nullptr;
  uint64_t bytes = 0;
};

// The tensors of an open file, in no particular order. Views live as long as the mapping.
// Nothing in the file is trusted: the header's length, nesting, names, types, shapes and
// offsets are checked, sizes against shapes, and tensors against the file's end and each
// other. Throws Failure, "PATH: what is wrong".
std::vector<SafetensorsEntry> readSafetensors(const kiv::MappedFile& file);

}  // namespace zemtool
