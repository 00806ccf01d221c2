// Benchmark, counters and reset.
#pragma once

#include "qwen35_session.h"

namespace qwen35rt {

int qwen35V2Bench(ZEMRuntimeHandle* handle, const ZEMBenchParams* params, ZEMBenchResult* result);
int qwen35V2Stats(ZEMRuntimeHandle* handle, ZEMRuntimeStats* out);
int qwen35V2Reset(ZEMRuntimeHandle* handle);

}  // namespace qwen35rt
