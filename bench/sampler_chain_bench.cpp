// SPDX-License-Identifier: Apache-2.0
// How long the engine takes to choose a token from a vocabulary of 248,320:
//
//   sampler_chain_bench [--benchmark_filter=...] [--benchmark_repetitions=9]
//
// "plain" sorts everything, as the choice is defined. The fast version is first held
// against it for some draws from the same logits.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

#include "engine/sampling/chain_testing.h"
#include "engine/sampling/log_probabilities.h"
#include "engine/sampling/plain_chain.h"
#include "engine/sampling/sampler_chain.h"

namespace {

using zemtest::MaskFilter;

constexpr uint32_t kLogits = 248320;
constexpr uint32_t kTokens = kLogits - 243;

struct Settings {
  const char* name;
  zem::SamplingOptions options;
  int recorded;              // tokens of the reply so far
  const MaskFilter* filter;  // null: none
};

// A few likely tokens far above a bell curve, as a model's logits look.
std::vector<float> modelLike() {
  std::mt19937 random(1);
  std::normal_distribution<float> bell(0.0F, 2.5F);
  std::vector<float> logits(kLogits);
  for (float& x : logits) x = bell(random);
  for (size_t i = 0; i < 30; ++i) {
    logits[random() % kTokens] = 18.0F - 0.4F * static_cast<float>(i);
  }
  return logits;
}

// Every token has its chance.
std::vector<float> nearlyFlat() {
  std::mt19937 random(2);
  std::normal_distribution<float> bell(0.0F, 0.5F);
  std::vector<float> logits(kLogits);
  for (float& x : logits) x = bell(random);
  return logits;
}

const MaskFilter& half() {
  static std::mt19937 random(3);
  static const MaskFilter filter(zemtest::someIds(kTokens, 128, random));
  return filter;
}

std::vector<Settings> allSettings() {
  zem::SamplingOptions off;
  zem::SamplingOptions greedy;
  greedy.temperature = 0.0F;
  zem::SamplingOptions topP;
  topP.topP = 0.95F;
  zem::SamplingOptions minP;
  minP.minP = 0.05F;
  std::vector<Settings> all = {
      {"greedy", greedy, 0, nullptr},
      {"temperature 1", off, 0, nullptr},
      {"top-p 0.95", topP, 0, nullptr},
      {"min-p 0.05", minP, 0, nullptr},
      {"thinking", zem::defaultSampling(true), 0, nullptr},
      {"thinking, 2000 tokens", zem::defaultSampling(true), 2000, nullptr},
      {"thinking, half allowed", zem::defaultSampling(true), 0, &half()},
      {"top-p 0.95, half allowed", topP, 0, &half()},
  };
  for (Settings& settings : all) settings.options.seed = 42;
  return all;
}

template <typename Chain>
Chain chainFor(const Settings& settings) {
  Chain chain(settings.options, kTokens);
  std::mt19937 random(4);
  for (int i = 0; i < settings.recorded; ++i)
    chain.record(static_cast<uint32_t>(random() % kTokens));
  return chain;
}

void verify(const std::vector<float>& logits, const Settings& settings) {
  auto fast = chainFor<zem::SamplerChain>(settings);
  auto plain = chainFor<zemtest::plain_chain::Chain>(settings);
  const auto* allowed = settings.filter != nullptr ? &settings.filter->allowed() : nullptr;
  for (int i = 0; i < 3; ++i) {
    if (fast.next(logits, settings.filter) != plain.next(logits, allowed)) {
      throw std::runtime_error(std::string("the fast choice is wrong: ") + settings.name);
    }
  }
}

void finish(benchmark::internal::Benchmark* registered) {
  registered->Unit(benchmark::kMicrosecond)
      ->ComputeStatistics("min", [](const std::vector<double>& times) {
        return *std::min_element(times.begin(), times.end());
      });
}

void addChoice(const std::string& kind, const std::vector<float>& logits) {
  for (const Settings& settings : allSettings()) {
    verify(logits, settings);
    const std::string name = kind + "/" + settings.name;
    finish(benchmark::RegisterBenchmark((name + "/plain").c_str(), [=](benchmark::State& state) {
      auto chain = chainFor<zemtest::plain_chain::Chain>(settings);
      const auto* allowed = settings.filter != nullptr ? &settings.filter->allowed() : nullptr;
      for (auto _ : state) benchmark::DoNotOptimize(chain.next(logits, allowed));
    }));
    finish(benchmark::RegisterBenchmark((name + "/fast").c_str(), [=](benchmark::State& state) {
      auto chain = chainFor<zem::SamplerChain>(settings);
      for (auto _ : state) benchmark::DoNotOptimize(chain.next(logits, settings.filter));
    }));
  }
}

void addLogProbabilities(const std::vector<float>& logits) {
  for (const size_t count : {size_t{0}, size_t{20}, size_t{kLogits}}) {
    finish(benchmark::RegisterBenchmark(
        ("log-probabilities/" + std::to_string(count)).c_str(), [=](benchmark::State& state) {
          for (auto _ : state) {
            benchmark::DoNotOptimize(zem::logProbabilities(logits, 5, count));
          }
        }));
  }
}

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 2;
  try {
    addChoice("model-like", modelLike());
    addChoice("nearly flat", nearlyFlat());
    addLogProbabilities(modelLike());
  } catch (const std::exception& error) {
    std::fprintf(stderr, "sampler_chain_bench: %s\n", error.what());
    return 1;
  }
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
