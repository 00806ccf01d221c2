// Whether a session computes on the GPU: what the tool asks for, and what came
// of it.
#pragma once

#include <string>

#include "commands/options.h"

namespace zemtool {

// To be called before the plug-in is loaded. Carries out --no-gpu. Where no plan
// was given and the device that the runtime would choose is software, which the
// CPU alone is faster than, the plan becomes "cpu:all" and one line on stderr
// says so.
void settleGpu(SessionOptions& options);

// The name of the Vulkan device that a runtime chooses by itself; empty when
// there is none.
std::string automaticDevice();

// What a session computes on: "CPU", "Vulkan: DEVICE", or "Vulkan: DEVICE, plan
// PLAN" when the plan leaves layers to both. `printed` is what the runtime wrote
// to stderr when it opened the model, the only place where it tells.
std::string backendName(const std::string& device, const std::string& plan,
                        const std::string& printed);

}  // namespace zemtool
