// SPDX-License-Identifier: Apache-2.0
// The plug-in as every host sees it: a library with four exports, and sessions behind
// function pointers.
#pragma once

#include <string>

#include "host/session_options.h"
#include "zem/plugin.h"

namespace zemtool {

// The runtime's limit: tokens of one reply or completion.
inline constexpr int kTokenBudget = 96;

// The plug-in's file: `given` unless it is empty, else $ZEM_PLUGIN, else the one that came
// with this program. Throws Failure when there is none.
std::string findPlugin(const std::string& given);

// A loaded plug-in and its first runtime. The library stays loaded until the process ends,
// because OpenMP's waiting threads run its code.
class PluginHost {
 public:
  // Throws Failure when this host cannot drive the file as a plug-in.
  explicit PluginHost(const std::string& path);

  const ZEMPluginDescriptor& plugin() const { return *plugin_; }
  const ZEMRuntimeDescriptorV2& runtime() const { return *runtime_; }
  const ZEMRuntimeDescriptorV2S& streaming() const { return *streaming_; }

  // From the next product on, the sessions that this thread drives compute on `count`
  // threads. The boundary has no entry for that, but the plug-in's OpenMP library has one.
  // Throws Failure when that library cannot be reached, as when it is part of the plug-in.
  void setThreads(int count) const;

 private:
  const ZEMPluginDescriptor* plugin_ = nullptr;
  const ZEMRuntimeDescriptorV2* runtime_ = nullptr;
  const ZEMRuntimeDescriptorV2S* streaming_ = nullptr;
  void (*setThreads_)(int) = nullptr;
};

// One open model. Methods throw Failure when the runtime reports one. The host
// outlives the session.
class Session {
 public:
  Session(const PluginHost& host, const SessionOptions& options);
  ~Session();
  Session(const Session&) = delete;
  Session& operator=(const Session&) = delete;

  void configure(const ZEMSessionOptions& settings);
  // A whole completion, never cut.
  std::string generate(const std::string& prompt, const ZEMSessionOptions& settings);
  void chatTurn(const std::string& text, ZEMChatTokenFn piece, void* user, volatile int* cancel);
  ZEMBenchResult bench(const ZEMBenchParams& params);
  ZEMRuntimeStats stats();
  void reset();

 private:
  const PluginHost& host_;
  ZEMRuntimeHandle* handle_ = nullptr;
};

// Tokens per second of forward steps; 0 when there were no steps.
double tokensPerSecond(const ZEMRuntimeStats& stats);
// "17 tokens in 512.3 ms (prompt included), 33.2 tokens/s, last step 29.8 ms".
std::string describeStats(const ZEMRuntimeStats& stats);

}  // namespace zemtool
