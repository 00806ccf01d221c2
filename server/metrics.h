// SPDX-License-Identifier: Apache-2.0
// What the server has done, as Prometheus reads it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>

#include "engine/engine.h"
#include "engine/seconds_histogram.h"

namespace zem::server {

// One thread at a time.
class Metrics {
 public:
  void countAnswer(int status) { ++answers_[status]; }
  void countReply(const End& end);
  void countWait(double seconds) { tokenSeconds_.add(seconds); }  // from token to token

  std::string text(const Engine::Load& load, size_t connections) const;

 private:
  std::map<int, uint64_t> answers_;  // by status
  std::map<EndReason, uint64_t> replies_;
  uint64_t promptTokens_ = 0;
  uint64_t reusedTokens_ = 0;
  uint64_t generatedTokens_ = 0;
  uint64_t hits_ = 0;  // replies that reused something
  double promptSeconds_ = 0.0;
  double generateSeconds_ = 0.0;
  SecondsHistogram waitSeconds_;  // for a place
  SecondsHistogram tokenSeconds_;
};

}  // namespace zem::server
