// SPDX-License-Identifier: Apache-2.0
// How long the choice of a token takes over a vocabulary of 248,320:
//
//   sampling_bench [--benchmark_filter=...] [--benchmark_repetitions=9]
//
// "plain" sorts everything, as the choice is defined. The fast version is first
// held against it for many draws from the same logits.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <functional>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

#include "kernels/kernel_table.h"
#include "kiv/math/exact_math.h"
#include "qwen35_cpu.h"
#include "runtime_qwen35_vulkan/sampling/plain_sampling.h"
#include "sampling/sampling.h"

namespace {

constexpr size_t kVocabulary = 248320;

using Sampler = std::function<int(const float*, size_t, float, int, float, std::mt19937&)>;

struct Settings {
  const char* name;
  float temperature;
  int topK;
  float topP;
};

constexpr Settings kSettings[] = {
    {"greedy", 0.0F, 0, 0.0F},
    {"temperature 0.7", 0.7F, 0, 0.0F},
    {"temperature 0.7, top-k 40", 0.7F, 40, 0.0F},
    {"temperature 1, top-k 100000", 1.0F, 100000, 0.0F},
    {"temperature 0.7, top-p 0.9", 0.7F, 0, 0.9F},
};

// A few likely tokens far above a bell curve, as a model's logits look.
std::vector<float> modelLike() {
  std::mt19937 random(1);
  std::normal_distribution<float> bell(0.0F, 2.5F);
  std::vector<float> logits(kVocabulary);
  for (float& x : logits) x = bell(random);
  for (size_t i = 0; i < 30; ++i) {
    logits[random() % kVocabulary] = 18.0F - 0.4F * static_cast<float>(i);
  }
  return logits;
}

// Every token has its chance.
std::vector<float> nearlyFlat() {
  std::mt19937 random(2);
  std::normal_distribution<float> bell(0.0F, 0.5F);
  std::vector<float> logits(kVocabulary);
  for (float& x : logits) x = bell(random);
  return logits;
}

std::vector<float> allEqual() { return std::vector<float>(kVocabulary, 1.0F); }

// Two towers of nearly equal values, far apart.
std::vector<float> clustered() {
  std::mt19937 random(3);
  std::vector<float> logits(kVocabulary);
  for (float& x : logits) {
    x = (random() % 2 == 0 ? 0.0F : 30.0F) + static_cast<float>(random() % 1000) * 1e-5F;
  }
  return logits;
}

void verify(const std::vector<float>& logits, const Settings& s) {
  std::mt19937 fast(7);
  std::mt19937 plain(7);
  for (int i = 0; i < 8; ++i) {
    const int id =
        qwen35rt::sampleNext(logits.data(), logits.size(), s.temperature, s.topK, s.topP, fast);
    const int expected = qwen35rt::plain::sampleNext(logits.data(), logits.size(), s.temperature,
                                                     s.topK, s.topP, plain);
    if (id != expected || fast != plain) throw std::runtime_error("the fast choice is wrong");
  }
}

void finish(benchmark::internal::Benchmark* registered) {
  registered->Unit(benchmark::kMicrosecond)
      ->ComputeStatistics("min", [](const std::vector<double>& times) {
        return *std::min_element(times.begin(), times.end());
      });
}

void add(const std::string& name, const std::vector<float>& logits, const Settings& s,
         const Sampler& sample) {
  const auto run = [=](benchmark::State& state) {
    std::mt19937 rng(42);
    for (auto _ : state) {
      benchmark::DoNotOptimize(
          sample(logits.data(), logits.size(), s.temperature, s.topK, s.topP, rng));
    }
  };
  finish(benchmark::RegisterBenchmark(name.c_str(), run));
}

void addSampling(const std::string& kind, const std::vector<float>& logits) {
  for (const Settings& s : kSettings) {
    verify(logits, s);
    add(kind + "/" + s.name + "/plain", logits, s, qwen35rt::plain::sampleNext);
    add(kind + "/" + s.name + "/fast", logits, s, qwen35rt::sampleNext);
  }
}

// The vector loops by instruction set, with the plain exponential beside them.
void addLoops() {
  static const std::vector<float> logits = modelLike();
  static std::vector<double> weights(kVocabulary);
  const auto plain = [](benchmark::State& state) {
    for (auto _ : state) {
      for (size_t i = 0; i < kVocabulary; ++i) {
        weights[i] = kiv::math::expF64(static_cast<double>(logits[i]) - 18.0);
      }
      benchmark::DoNotOptimize(weights.data());
    }
  };
  finish(benchmark::RegisterBenchmark("weights/plain", plain));
  for (const qwen35::CpuLevel level : qwen35::cpuLevels()) {
    const qwen35::SamplingLoops& loops = qwen35::kernelTable(level).sampling;
    const auto run = [&loops](benchmark::State& state) {
      for (auto _ : state) {
        loops.weights(logits.data(), kVocabulary, 1.0F, 18.0F, weights.data());
        benchmark::DoNotOptimize(weights.data());
      }
    };
    finish(benchmark::RegisterBenchmark(
        (std::string("weights/") + qwen35::cpuLevelName(level)).c_str(), run));
  }
}

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 2;
  try {
    addSampling("model-like", modelLike());
    addSampling("nearly flat", nearlyFlat());
    addSampling("all equal", allEqual());
    addSampling("clustered", clustered());
  } catch (const std::exception& error) {
    std::fprintf(stderr, "sampling_bench: %s\n", error.what());
    return 1;
  }
  addLoops();
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
