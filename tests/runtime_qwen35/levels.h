// SPDX-License-Identifier: Apache-2.0
// Tests at every instruction set, those that this machine lacks included: they are skipped by
// name.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <optional>
#include <string>

#include "qwen35_cpu.h"

namespace qwen35 {

inline constexpr CpuLevel kEveryLevel[] = {CpuLevel::Baseline, CpuLevel::Avx2, CpuLevel::Avx512};

inline bool processorHas(CpuLevel level) {
  return std::ranges::find(cpuLevels(), level) != cpuLevels().end();
}

inline CpuLevel levelOf(CpuLevel level) { return level; }

inline std::string levelName(const testing::TestParamInfo<CpuLevel>& info) {
  return cpuLevelName(info.param);
}

// A test whose parameter is, or has, a level: levelOf(parameter). That level is in force.
template <typename Parameter>
class AtEveryLevel : public testing::TestWithParam<Parameter> {
 protected:
  void SetUp() override {
    const CpuLevel level = levelOf(this->GetParam());
    if (!processorHas(level)) {
      GTEST_SKIP() << "this processor has no level " << cpuLevelName(level);
    }
    forced_.emplace(level);
  }

 private:
  std::optional<ForcedCpuLevel> forced_;
};

}  // namespace qwen35
