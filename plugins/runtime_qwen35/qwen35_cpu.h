// SPDX-License-Identifier: Apache-2.0
/// \file
/// Which instruction set the decoder's kernels and the choice of tokens use.
#pragma once

#include <span>

namespace qwen35 {

/// Instruction sets, worst first.
enum class CpuLevel {
  Baseline,  ///< any x86-64 processor
  Avx2,      ///< with FMA and F16C
  Avx512,    ///< F, VL and DQ, and all of Avx2
};

/// "baseline", "avx2", "avx512". Static storage.
const char* cpuLevelName(CpuLevel level);

/// The levels that this processor has, best first; Baseline is always the last.
std::span<const CpuLevel> cpuLevels();

/// The level in use: the best one, or the one that the environment variable
/// QWEN35_CPU named when this was first called. A name that is unknown, or that this
/// processor lacks, is reported on standard error and has no other effect. Results are
/// the same bits at every level.
CpuLevel currentCpuLevel();

/// For tests and benchmarks: while the object lives, `level`, one of cpuLevels(), is in
/// use. One at a time; make and destroy it while nothing computes.
class ForcedCpuLevel {
 public:
  /// Puts `level` to use.
  explicit ForcedCpuLevel(CpuLevel level);
  ~ForcedCpuLevel();
  ForcedCpuLevel(const ForcedCpuLevel&) = delete;
  ForcedCpuLevel& operator=(const ForcedCpuLevel&) = delete;

 private:
  CpuLevel before_;
};

}  // namespace qwen35
