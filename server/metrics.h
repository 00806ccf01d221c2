// SPDX-License-Identifier: Apache-2.0
// What the server has done, as Prometheus reads it.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <map>
#include <string>

#include "engine/engine.h"

namespace zem::server {

// A distribution of seconds.
class SecondsHistogram {
 public:
  void add(double seconds);
  // Lines of a metric with this name.
  std::string text(const std::string& name) const;

  static constexpr std::array<double, 12> kBounds = {0.001, 0.0025, 0.005, 0.01, 0.025, 0.05,
                                                     0.1,   0.25,   0.5,   1.0,  2.5,   10.0};

 private:
  std::array<uint64_t, kBounds.size() + 1> counts_{};
  double sum_ = 0.0;
};

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
