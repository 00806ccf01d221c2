// SPDX-License-Identifier: Apache-2.0
#include "qwen35_cpu.h"

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "kernels/levels.h"

namespace qwen35 {
namespace {

std::vector<CpuLevel> supportedLevels() {
  std::vector<CpuLevel> supported;
  for (const Level& known : levels()) {
    if (known.isSupported()) supported.push_back(known.level);
  }
  return supported;
}

CpuLevel chooseLevel() {
  const char* name = std::getenv("QWEN35_CPU");
  const std::span<const CpuLevel> supported = cpuLevels();
  if (name == nullptr || *name == '\0') return supported.front();
  const auto named = [name](CpuLevel level) { return std::strcmp(cpuLevelName(level), name) == 0; };
  const auto found = std::find_if(supported.begin(), supported.end(), named);
  if (found != supported.end()) return *found;
  std::fprintf(stderr, "QWEN35_CPU: this processor has no level \"%s\"; using %s\n", name,
               cpuLevelName(supported.front()));
  return supported.front();
}

std::atomic<CpuLevel>& current() {
  static std::atomic<CpuLevel> level{chooseLevel()};
  return level;
}

}  // namespace

const char* cpuLevelName(CpuLevel level) {
  for (const Level& known : levels()) {
    if (known.level == level) return known.name;
  }
  return "?";
}

std::span<const CpuLevel> cpuLevels() {
  static const std::vector<CpuLevel> supported = supportedLevels();
  return supported;
}

CpuLevel currentCpuLevel() { return current().load(std::memory_order_relaxed); }

ForcedCpuLevel::ForcedCpuLevel(CpuLevel level) : before_(current().exchange(level)) {}

ForcedCpuLevel::~ForcedCpuLevel() { current().store(before_); }

}  // namespace qwen35
