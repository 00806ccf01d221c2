// SPDX-License-Identifier: Apache-2.0
// The weights behind tests/data/qwen35_tiny_a.json and _d.json, which follow from a formula:
// as a checkpoint publishes them, and as a container lays them out.
// tests/data/README.md has the formula.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace zemtest {

// Elements of the checkpoint's tensor `name`; `shape` has the outermost extent first.
std::vector<float> goldenTensor(const std::string& tag, const std::string& name,
                                const std::vector<uint64_t>& shape);

// The container's name for a tensor of the checkpoint.
std::string goldenContainerName(const std::string& name);

// Changes elements and shape from the checkpoint's layout to the container's. The model has 16
// key heads.
void toContainerLayout(const std::string& name, std::vector<float>& values,
                       std::vector<uint64_t>& shape, size_t valueHeads = 32);

}  // namespace zemtest
