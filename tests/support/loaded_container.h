// SPDX-License-Identifier: Apache-2.0
// A loader on a container that exists only for one test.
#pragma once

#include <algorithm>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "kiv/zem_loader.h"
#include "support/container_builder.h"
#include "support/temp_file.h"

namespace zemtest {

struct LoadedContainer {
  explicit LoadedContainer(const Bytes& bytes) : file(bytes), status(loader.open(file.path())) {}

  TempFile file;
  kiv::ZEMLoader loader;
  kiv::Status status;
};

// Bytes that differ from those of any other seed, and from their neighbours.
inline Bytes patternBytes(size_t size, uint32_t seed) {
  Bytes bytes(size);
  uint32_t state = seed * 2654435761U + 1;
  std::generate(bytes.begin(), bytes.end(), [&state] {
    state = state * 1664525U + 1013904223U;
    return static_cast<uint8_t>(state >> 24);
  });
  return bytes;
}

// Adds a tensor of plain bytes.
inline ContainerBuilder& addBytes(ContainerBuilder& builder, std::string name, Bytes bytes) {
  const uint64_t elements = bytes.size();
  return builder.addTensor(std::move(name), kiv::DType::F32, {elements}, std::move(bytes));
}

}  // namespace zemtest
