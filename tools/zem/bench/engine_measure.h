// SPDX-License-Identifier: Apache-2.0
// The measurements of `zem bench`, taken through the engine.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include "bench/bench_test.h"
#include "engine/engine.h"

namespace zemtool {

// How the engine of a measurement computes.
struct EngineSubject {
  std::string model;
  zem::Math math = zem::Math::Exact;
  zem::CacheNumbers cache = zem::CacheNumbers::Half;
  int threads = 1;
  int sequences = 1;  // most of all tests
  int positions = 1;  // of a conversation, most of all tests
};

// Measures with one engine. Throws Failure where the engine refuses or fails.
class EngineRunner {
 public:
  explicit EngineRunner(const EngineSubject& subject);

  // Reads the weights once, untimed.
  void warmUp();

  // Tokens per second of all sequences together. Each repetition has prompts of its own; what is
  // filled before is computed the first time and kept.
  double run(const BenchTest& test, uint32_t repetition);

 private:
  zem::Request requestFor(const BenchTest& test, uint32_t repetition, uint32_t sequence) const;

  std::string model_;
  std::unique_ptr<zem::Engine> engine_;
};

}  // namespace zemtool
