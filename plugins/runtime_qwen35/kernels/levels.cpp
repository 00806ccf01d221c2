// SPDX-License-Identifier: Apache-2.0
#include "kernels/levels.h"

#include <cpuid.h>

namespace qwen35 {

// Each is defined by its kernels/simd/level_*.cpp.
extern const KernelTable kKernelsAvx512;
extern const KernelTable kKernelsAvx2;
extern const KernelTable kKernelsBaseline;

namespace {

// Compilers differ on whether __builtin_cpu_supports knows this name.
bool hasF16c() {
  unsigned a = 0;
  unsigned b = 0;
  unsigned c = 0;
  unsigned d = 0;
  return __get_cpuid(1, &a, &b, &c, &d) != 0 && (c & bit_F16C) != 0;
}

bool hasAvx2() {
  return __builtin_cpu_supports("avx2") != 0 && __builtin_cpu_supports("fma") != 0 && hasF16c();
}

bool hasAvx512() {
  return hasAvx2() && __builtin_cpu_supports("avx512f") != 0 &&
         __builtin_cpu_supports("avx512vl") != 0 && __builtin_cpu_supports("avx512dq") != 0;
}

bool always() { return true; }

constexpr Level kLevels[] = {
    {CpuLevel::Avx512, "avx512", hasAvx512, &kKernelsAvx512},
    {CpuLevel::Avx2, "avx2", hasAvx2, &kKernelsAvx2},
    {CpuLevel::Baseline, "baseline", always, &kKernelsBaseline},
};

}  // namespace

std::span<const Level> levels() { return kLevels; }

const KernelTable& kernelTable(CpuLevel level) {
  for (const Level& known : kLevels) {
    if (known.level == level) return *known.kernels;
  }
  return kKernelsBaseline;
}

}  // namespace qwen35
