// SPDX-License-Identifier: Apache-2.0
// Benchmark, counters and reset.
#pragma once

#include "session/session.h"

namespace qwen35rt {

int qwen35V2Bench(ZEMRuntimeHandle* handle, const ZEMBenchParams* params,
                  ZEMBenchResult* result) noexcept;
int qwen35V2Stats(ZEMRuntimeHandle* handle, ZEMRuntimeStats* out) noexcept;
int qwen35V2Reset(ZEMRuntimeHandle* handle) noexcept;

}  // namespace qwen35rt
