// SPDX-License-Identifier: Apache-2.0
// Runs each counted kernel for callgrind, which writes one dump a kernel under
// its name. check_ceilings.sh starts this and reads the dumps.
#include <omp.h>
#include <valgrind/callgrind.h>

#include <algorithm>
#include <cstdio>
#include <exception>

#include "counted_kernels.h"

namespace {

void count(const zemtest::CountedKernel& kernel) {
  const qwen35::ForcedCpuLevel forced(kernel.level);
  const std::function<void()> work = kernel.prepare();
  work();  // what only the first call does is no part of a kernel
  CALLGRIND_START_INSTRUMENTATION;
  CALLGRIND_TOGGLE_COLLECT;
  work();
  CALLGRIND_TOGGLE_COLLECT;
  CALLGRIND_DUMP_STATS_AT(kernel.name.c_str());
  CALLGRIND_STOP_INSTRUMENTATION;
}

}  // namespace

int main() {
  omp_set_num_threads(1);
  try {
    for (const zemtest::CountedKernel& kernel : zemtest::countedKernels()) {
      const auto levels = qwen35::cpuLevels();
      if (std::find(levels.begin(), levels.end(), kernel.level) != levels.end()) count(kernel);
    }
  } catch (const std::exception& error) {
    std::fprintf(stderr, "instruction_counts: %s\n", error.what());
    return 1;
  }
  return 0;
}
