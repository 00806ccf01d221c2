// SPDX-License-Identifier: Apache-2.0
// The kernels whose instructions are counted. To add one: a function in
// counted_kernels.cpp that returns it, a line in countedKernels(), and
// check_ceilings.sh --record.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "qwen35_cpu.h"

namespace zemtest {

struct CountedKernel {
  std::string name;        // without spaces; as in ceilings.txt
  qwen35::CpuLevel level;  // in force while it is prepared and run
  // Makes the inputs, which are not counted, and returns the work, which is. The
  // work is run twice, counted the second time, and does the same each time.
  std::function<std::function<void()>()> prepare;
};

// Baseline and Avx2 only: the machine that counts is simulated and has no more.
std::vector<CountedKernel> countedKernels();

}  // namespace zemtest
