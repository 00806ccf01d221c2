// SPDX-License-Identifier: Apache-2.0
#include "host/session_options.h"

#include <cstdlib>

#include "compat/environment.h"
#include "console/program.h"

namespace zemtool {
namespace {

// True if that changes it.
bool setVariable(const char* name, const std::string& value) {
  if (compat::environmentVariable(name) == value) return false;
  compat::setEnvironmentVariable(name, value);
  return true;
}

// By default libgomp's threads spin for milliseconds before they sleep. Where other programs
// want the processors too, each barrier then waits that long for a thread that does not run.
// 10000 rounds last a little longer than the gaps between the products of a token.
bool limitSpinning() {
  if (compat::environmentVariable("OMP_WAIT_POLICY")) return false;
  if (compat::environmentVariable("GOMP_SPINCOUNT")) return false;
  return setVariable("GOMP_SPINCOUNT", "10000");
}

}  // namespace

std::string createHint(const SessionOptions& options) {
  std::string hint = "zem";
  if (options.ctx > 0) hint += ";ctx=" + std::to_string(options.ctx);
  if (!options.plan.empty()) hint += ";plan=" + options.plan;
  return hint;
}

ZEMSessionOptions sessionRecord(const SamplingOptions& options) {
  ZEMSessionOptions record{};
  record.struct_size = sizeof record;
  record.temperature = options.temperature;
  record.top_k = options.topK;
  record.top_p = options.topP;
  record.seed = options.seed;
  return record;
}

void applyThreads(int threads) {
  const bool limited = limitSpinning();
  const bool counted = threads > 0 && setVariable("OMP_NUM_THREADS", std::to_string(threads));
  if (limited || counted) restartForOpenMp();
}

int effectiveThreads() {
  if (const char* given = std::getenv("OMP_NUM_THREADS")) {
    const int threads = std::atoi(given);
    if (threads > 0) return threads;
  }
  return usableProcessors();
}

}  // namespace zemtool
