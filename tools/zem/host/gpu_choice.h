// SPDX-License-Identifier: Apache-2.0
// Whether a session computes on the GPU: what the tool asks for, and what follows from it.
#pragma once

#include <string>

#include "host/session_options.h"

namespace zemtool {

// Call it before the plug-in is loaded. Carries out --no-gpu. Where no plan was given and
// the device that the runtime would choose is software, the plan becomes "cpu:all", which
// is faster, and one line on stderr says so.
void settleGpu(SessionOptions& options);

// The name of the Vulkan device that a runtime chooses by itself; empty where there is no
// device, or it cannot be set up.
std::string usableDevice();

// What a session with this plan computes on: "CPU", "Vulkan: DEVICE", or "Vulkan: DEVICE,
// plan PLAN" when the plan leaves layers to both. An empty `device` is none. A runtime that
// has no room for the weights in the device's memory computes on the CPU all the same; its
// boundary does not tell, and its line on stderr does.
std::string backendName(const std::string& device, const std::string& plan);

}  // namespace zemtool
