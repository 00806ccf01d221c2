#include "qwen35_cpu.h"

#include <cpuid.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

namespace qwen35 {
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
         __builtin_cpu_supports("avx512vl") != 0;
}

std::vector<CpuLevel> detectLevels() {
  std::vector<CpuLevel> levels;
  if (hasAvx512()) levels.push_back(CpuLevel::Avx512);
  if (hasAvx2()) levels.push_back(CpuLevel::Avx2);
  levels.push_back(CpuLevel::Baseline);
  return levels;
}

CpuLevel chooseLevel() {
  const char* name = std::getenv("QWEN35_CPU");
  const std::span<const CpuLevel> levels = cpuLevels();
  if (name == nullptr || *name == '\0') return levels.front();
  const auto named = [name](CpuLevel level) { return std::strcmp(cpuLevelName(level), name) == 0; };
  const auto found = std::find_if(levels.begin(), levels.end(), named);
  if (found != levels.end()) return *found;
  std::fprintf(stderr, "QWEN35_CPU: this processor has no level \"%s\"; using %s\n", name,
               cpuLevelName(levels.front()));
  return levels.front();
}

std::atomic<CpuLevel>& current() {
  static std::atomic<CpuLevel> level{chooseLevel()};
  return level;
}

}  // namespace

const char* cpuLevelName(CpuLevel level) {
  switch (level) {
    case CpuLevel::Avx512:
      return "avx512";
    case CpuLevel::Avx2:
      return "avx2";
    case CpuLevel::Baseline:
      break;
  }
  return "baseline";
}

std::span<const CpuLevel> cpuLevels() {
  static const std::vector<CpuLevel> levels = detectLevels();
  return levels;
}

CpuLevel currentCpuLevel() { return current().load(std::memory_order_relaxed); }

ForcedCpuLevel::ForcedCpuLevel(CpuLevel level) : before_(current().exchange(level)) {}

ForcedCpuLevel::~ForcedCpuLevel() { current().store(before_); }

}  // namespace qwen35
