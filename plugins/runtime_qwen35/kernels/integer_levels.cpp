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

bool has(CpuLevel level) { return std::ranges::find(cpuLevels(), level) != cpuLevels().end(); }

bool hasAvx2() { return has(CpuLevel::Avx2); }

bool hasAvx512Bw() { return has(CpuLevel::Avx512) && __builtin_cpu_supports("avx512bw") != 0; }

bool hasAvx512Vnni() { return hasAvx512Bw() && __builtin_cpu_supports("avx512vnni") != 0; }

bool always() { return true; }

constexpr IntegerLevel kLevels[] = {
    {"avx512vnni", CpuLevel::Avx512, hasAvx512Vnni, &kIntegerKernelsAvx512Vnni},
    {"avx512bw", CpuLevel::Avx512, hasAvx512Bw, &kIntegerKernelsAvx512Bw},
    {"avx2", CpuLevel::Avx2, hasAvx2, &kIntegerKernelsAvx2},
    {"baseline", CpuLevel::Baseline, always, &kIntegerKernelsBaseline},
};

// The best of those that belong to `level` or a level below.
const IntegerKernels& bestOf(CpuLevel level) {
  for (const IntegerLevel& known : kLevels) {
    if (known.cpuLevel <= level && known.isSupported()) return *known.kernels;
  }
  return kIntegerKernelsBaseline;
}

}  // namespace

std::span<const IntegerLevel> integerLevels() { return kLevels; }

const IntegerKernels& integerKernels() {
  static const IntegerKernels* const best[] = {&bestOf(CpuLevel::Baseline), &bestOf(CpuLevel::Avx2),
                                               &bestOf(CpuLevel::Avx512)};
  return *best[static_cast<size_t>(currentCpuLevel())];
}

}  // namespace qwen35
