// SPDX-License-Identifier: Apache-2.0
#include <algorithm>

#include "kernels/integer_kernels.h"

namespace qwen35 {

// Each is defined by its kernels/simd/integer_level_*.cpp.
extern const IntegerKernels kIntegerKernelsAvx512Vnni;
extern const IntegerKernels kIntegerKernelsAvx512Bw;
extern const IntegerKernels kIntegerKernelsAvx2;
extern const IntegerKernels kIntegerKernelsBaseline;

namespace {

bool processorHas(CpuLevel level) {
  return std::ranges::find(cpuLevels(), level) != cpuLevels().end();
}

bool hasAvx512Bw() {
  return processorHas(CpuLevel::Avx512) && __builtin_cpu_supports("avx512bw") != 0;
}

bool hasAvx512Vnni() { return hasAvx512Bw() && __builtin_cpu_supports("avx512vnni") != 0; }

template <CpuLevel kLevel>
bool isLevelOfProcessor() {
  return processorHas(kLevel);
}

constexpr IntegerLevel kIntegerLevels[] = {
    {"avx512vnni", CpuLevel::Avx512, hasAvx512Vnni, &kIntegerKernelsAvx512Vnni},
    {"avx512bw", CpuLevel::Avx512, hasAvx512Bw, &kIntegerKernelsAvx512Bw},
    {"avx2", CpuLevel::Avx2, isLevelOfProcessor<CpuLevel::Avx2>, &kIntegerKernelsAvx2},
    {"baseline", CpuLevel::Baseline, isLevelOfProcessor<CpuLevel::Baseline>,
     &kIntegerKernelsBaseline},
};

// The best of those that belong to `level` or a level below.
const IntegerKernels& bestOf(CpuLevel level) {
  for (const IntegerLevel& known : kIntegerLevels) {
    if (known.cpuLevel <= level && known.isSupported()) return *known.kernels;
  }
  return kIntegerKernelsBaseline;
}

}  // namespace

std::span<const IntegerLevel> integerLevels() { return kIntegerLevels; }

const IntegerKernels& integerKernels() {
  static const IntegerKernels* const best[] = {&bestOf(CpuLevel::Baseline), &bestOf(CpuLevel::Avx2),
                                               &bestOf(CpuLevel::Avx512)};
  return *best[static_cast<size_t>(currentCpuLevel())];
}

}  // namespace qwen35
