// SPDX-License-Identifier: Apache-2.0
// The instruction sets that there are kernels for.
#pragma once

#include <span>

#include "kernels/kernel_table.h"
#include "qwen35_cpu.h"

namespace qwen35 {

struct Level {
  CpuLevel level;
  const char* name;
  bool (*isSupported)();  // by this processor
  const KernelTable* kernels;
};

// All of them, best first, whether or not this processor has them.
std::span<const Level> levels();

}  // namespace qwen35
