// SPDX-License-Identifier: Apache-2.0
// The engine beside the plug-in's decoder, and beside itself: one conversation and several, near
// the beginning and far from it. The two sides of each ratio take turns; medians.
//   engine_bench MODEL [THREADS] [ROUNDS]
#include <omp.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "engine/model/decoder.h"
#include "kiv/zem_loader.h"
#include "matmul/thread_team.h"
#include "qwen35_check.h"
#include "qwen35_model.h"

namespace {

using Floats = std::vector<float>;

double secondsOf(const std::function<void()>& work) {
  const auto begin = std::chrono::steady_clock::now();
  work();
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
}

double median(std::vector<double> values) {
  std::ranges::sort(values);
  return values[values.size() / 2];
}

// Runs both sides in turn and prints their medians, and the ratio of a to b.
void compare(const char* what, int rounds, double tokensA, const std::function<void()>& a,
             double tokensB, const std::function<void()>& b) {
  std::vector<double> rateA;
  std::vector<double> rateB;
  std::vector<double> ratio;
  for (int i = 0; i < rounds; ++i) {
    rateA.push_back(tokensA / secondsOf(a));
    rateB.push_back(tokensB / secondsOf(b));
    ratio.push_back(rateA.back() / rateB.back());
  }
  std::printf("%-58s %8.2f %8.2f tokens/s, ratio %.3f\n", what, median(rateA), median(rateB),
              median(ratio));
  std::fflush(stdout);
}

// The plug-in's decoder at a position of its choice.
class Plugin {
 public:
  Plugin(const char* path, size_t positions) {
    if (!loader_.open(path).ok() || !qwen35::initLayers(loader_, model_, positions) ||
        !qwen35::bindModel(loader_, model_, positions) ||
        !qwen35::checkWeights(loader_, model_).ok()) {
      std::fprintf(stderr, "the plug-in cannot open %s\n", path);
      std::exit(1);
    }
    logits_.resize(model_.nVocab);
    x_.resize(model_.nEmb);
  }
  void reset() {
    qwen35::resetModel(model_);
    position_ = 0;
  }
  void prompt(size_t count) {
    Floats x(count * model_.nEmb);
    Floats hidden(x.size());
    for (size_t i = 0; i < count; ++i) {
      qwen35::embedRow(model_, i % 100, x.data() + i * model_.nEmb);
    }
    qwen35::forwardTokensHidden(model_, x.data(), count, position_, hidden.data());
    position_ += count;
  }
  void decode(size_t count) {
    for (size_t i = 0; i < count; ++i) {
      qwen35::embedRow(model_, i % 100, x_.data());
      qwen35::forwardToken(model_, x_.data(), position_++, logits_.data());
    }
  }

 private:
  kiv::ZEMLoader loader_;
  qwen35::Model model_;
  Floats x_;
  Floats logits_;
  size_t position_ = 0;
};

class Engine {
 public:
  Engine(const zem::Weights& weights, zem::CacheType type, size_t sequences)
      : decoder_(weights, type) {
    for (size_t i = 0; i < sequences; ++i) sequences_.push_back(decoder_.newSequence());
  }
  void reset() {
    for (zem::SequenceState& s : sequences_) s.reset();
  }
  void prompt(size_t count) {
    for (size_t i = 0; i < count; i += zem::kBatchTokens) {
      std::vector<uint32_t> ids(std::min(zem::kBatchTokens, count - i));
      for (size_t j = 0; j < ids.size(); ++j) ids[j] = static_cast<uint32_t>((i + j) % 100);
      const zem::Chunk chunk{sequences_.data(), ids, zem::LogitsOf::None};
      decoder_.step({&chunk, 1}, logits_);
    }
  }
  // Each of the first `sequences` conversations gets `count` tokens.
  void decode(size_t count, size_t sequences = 1) {
    for (size_t i = 0; i < count; ++i) {
      const auto id = static_cast<uint32_t>(i % 100);
      std::vector<zem::Chunk> chunks;
      for (size_t s = 0; s < sequences; ++s) {
        chunks.push_back({&sequences_[s], {&id, 1}, zem::LogitsOf::Last});
      }
      decoder_.step(chunks, logits_);
    }
  }
  zem::Snapshot snapshot() const { return sequences_[0].snapshot(); }
  void restore(const zem::Snapshot& snapshot) { sequences_[0].restore(snapshot); }

 private:
  zem::Decoder decoder_;
  std::vector<zem::SequenceState> sequences_;
  Floats logits_;
};

// Pages and states that would be at this position, filled with what lies there.
void fill(Engine& engine, size_t positions) {
  engine.reset();
  engine.prompt(positions);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2) {
    std::fprintf(stderr, "usage: engine_bench MODEL [THREADS] [ROUNDS]\n");
    return 2;
  }
  const size_t threads = argc > 2 ? std::stoul(argv[2]) : 2;
  const int rounds = argc > 3 ? std::stoi(argv[3]) : 5;
  omp_set_num_threads(static_cast<int>(threads));
  std::unique_ptr<zem::Weights> weights;
  const kiv::Status status = zem::Weights::open(argv[1], weights);
  if (!status.ok()) {
    std::fprintf(stderr, "%s: %s\n", argv[1], status.message().c_str());
    return 1;
  }
  qwen35::ThreadTeam team(threads);
  const auto inTeam = [&](auto work) {
    return [&team, work] {
      const qwen35::UseTeam use(team);
      work();
    };
  };
  Plugin plugin(argv[1], 4096);
  Engine f32(*weights, zem::CacheType::F32, 1);
  Engine f16(*weights, zem::CacheType::F16, 8);
  constexpr size_t kDecoded = 4;
  constexpr size_t kPrompt = 96;
  plugin.decode(1);
  inTeam([&] { f32.decode(1); })();
  compare("decode: engine f32, plug-in", rounds, kDecoded, inTeam([&] { f32.decode(kDecoded); }),
          kDecoded, [&] { plugin.decode(kDecoded); });
  compare("prompt of 96: engine f32, plug-in", rounds, kPrompt,
          inTeam([&] { f32.prompt(kPrompt); }), kPrompt, [&] { plugin.prompt(kPrompt); });
  inTeam([&] { f16.decode(1, 8); })();
  compare("8 conversations, one", rounds, 8.0 * kDecoded, inTeam([&] { f16.decode(kDecoded, 8); }),
          kDecoded, inTeam([&] { f16.decode(kDecoded); }));
  const size_t far = argc > 4 ? std::stoul(argv[4]) : 8000;
  Engine near(*weights, zem::CacheType::F16, 1);
  Engine deep(*weights, zem::CacheType::F16, 1);
  inTeam([&] {
    fill(near, 100);
    fill(deep, far);
  })();
  compare(("decode at " + std::to_string(far) + ", at 100").c_str(), rounds, kDecoded,
          inTeam([&] { deep.decode(kDecoded); }), kDecoded, inTeam([&] { near.decode(kDecoded); }));
  return 0;
}
