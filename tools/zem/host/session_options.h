// SPDX-License-Identifier: Apache-2.0
// What a session of a runtime is asked for.
#pragma once

#include <cstdint>
#include <string>

#include "zem/plugin.h"

namespace zemtool {

struct SessionOptions {
  std::string model;
  std::string plugin;
  std::string plan;      // empty: the runtime's own
  bool hasPlan = false;  // a plan was given, perhaps an empty one
  bool noGpu = false;
  int ctx = 0;      // 0: the runtime's own
  int threads = 0;  // 0: one a processor
};

struct SamplingOptions {
  float temperature = -1;  // negative: the runtime's own
  int32_t topK = 0;
  float topP = 0;
  uint64_t seed = 0;
};

// The create hint: "zem;ctx=N;plan=TEXT" with the fields that were given.
std::string createHint(const SessionOptions& options);

// A full-size record; a value that was not given keeps the session's setting.
ZEMSessionOptions sessionRecord(const SamplingOptions& options);

// Sets the number of threads of modules that are loaded afterwards; 0 leaves it as it is. Call
// it before anything is read or written: the program may start anew, with its arguments.
void applyThreads(int threads);
// Threads that a plug-in uses when it is loaded now.
int effectiveThreads();

}  // namespace zemtool
