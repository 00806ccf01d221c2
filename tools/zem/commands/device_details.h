// SPDX-License-Identifier: Apache-2.0
// What a session would find on a Vulkan device: memory for the weights, and limits.
#pragma once

#include <cstdint>
#include <nlohmann/json_fwd.hpp>
#include <string>
#include <vector>

namespace zemtool {

struct DeviceDetails {
  struct Heap {
    uint64_t bytes = 0;
    bool deviceLocal = false;
  };
  // Where weights of `bytes` bytes would go.
  struct Pool {
    uint64_t bytes = 0;
    uint32_t type = 0;
    std::string properties;  // of the type: "device-local, host-visible"
    uint32_t heap = 0;
    uint64_t allocations = 1;
  };

  std::string problem;  // why no session can use the device; the rest may be empty then
  std::string api;      // the version of Vulkan
  uint64_t sharedBytes = 0;
  uint32_t workgroups[2] = {};
  uint64_t bufferBytes = 0;      // a larger matrix stays on the CPU
  uint64_t allocationBytes = 0;  // 0: the device names no limit
  std::vector<Heap> heaps;
  std::vector<Pool> pools;
};

// Of the device with this index in the order of `zem devices`. Sets the device up for a moment.
DeviceDetails deviceDetails(uint64_t index);

// Lines for people, with the index in front of the first.
std::string detailsText(uint64_t index, const DeviceDetails& details);
nlohmann::ordered_json detailsJson(const DeviceDetails& details);

}  // namespace zemtool
