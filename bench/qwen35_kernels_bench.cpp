// SPDX-License-Identifier: Apache-2.0
// The CPU decoder's matrix-vector products beside the plain loops that define
// them. Items are weights.
//
//   dots/TYPE/LEVEL         matvec: one thread, one matrix of 2 to 21 MB, again and again
//   dots/TYPE/plain         the loop over the widened row, the same matrix
//   tokens/TYPE/LEVEL/N     matmul: one thread, the matrix with N vectors at once; items
//                           are weights times vectors
//   product/TYPE/LEVEL/N    the decoder's product on a team of N, matrices in turn
//                           that no cache holds
//
// Every product is first held against the plain loop, bit for bit; one that
// differs is reported as an error and not timed.
#include <benchmark/benchmark.h>
#include <omp.h>

#include <algorithm>
#include <bit>
#include <cstdint>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "kernels/kernel_table.h"
#include "kernels/packing.h"
#include "kernels/reference.h"
#include "kiv/quant_k.h"
#include "matmul/matmul.h"
#include "qwen35_cpu.h"

namespace {

using kiv::DType;
using qwen35::CpuLevel;

constexpr size_t kCols = 2560;
constexpr size_t kRows = 2048;
constexpr size_t kWorkingSet = size_t{256} << 20;
constexpr DType kTypes[] = {DType::Q4_K, DType::Q5_K, DType::Q6_K,
                            DType::Q8_0, DType::BF16, DType::F32};

// Random blocks with small half-precision factors; small numbers.
std::vector<uint8_t> randomWeights(DType type, size_t bytes) {
  std::mt19937_64 random(1);
  std::vector<uint8_t> weights(bytes);
  for (uint8_t& byte : weights) byte = static_cast<uint8_t>(random());
  const size_t block = kiv::dtypeBytes(type, kiv::dtypeBlockSize(type));
  const size_t upper = type == DType::Q6_K  ? offsetof(kiv::quant::Q6KBlock, d) + 1
                       : type == DType::F32 ? 3
                                            : 1;
  const uint8_t exponent = type == DType::F32 || type == DType::BF16 ? 0x3D : 0x20;
  for (size_t i = upper; i < bytes; i += block) weights[i] = exponent;
  if (type == DType::Q4_K || type == DType::Q5_K) {
    for (size_t i = 3; i < bytes; i += block) weights[i] = exponent;
  }
  return weights;
}

// kRows rows at a time of a long matrix, so that each product finds other weights.
class Weights {
 public:
  Weights(DType type, size_t matrices) : matrices_(matrices) {
    view_.dtype = type;
    view_.ndim = 2;
    view_.shape = {kCols, kRows, 0, 0};
    view_.size = kRows * kiv::dtypeBytes(type, kCols);
    bytes_ = randomWeights(type, view_.size * matrices);
    view_.data = bytes_.data();
    x_.resize(kCols);
    for (size_t c = 0; c < kCols; ++c) x_[c] = static_cast<float>(c % 17) / 17.0F - 0.5F;
  }

  const qwen35::TensorView& view() const { return view_; }
  const float* x() const { return x_.data(); }

  const qwen35::TensorView& next() {
    turn_ = (turn_ + 1) % matrices_;
    view_.data = bytes_.data() + turn_ * view_.size;
    return view_;
  }

 private:
  size_t matrices_;
  size_t turn_ = 0;
  std::vector<uint8_t> bytes_;
  std::vector<float> x_;
  qwen35::TensorView view_;
};

void plainDots(const Weights& W, float* dots) {
  std::vector<float> row(kCols);
  for (size_t r = 0; r < kRows; ++r) {
    qwen35::rowToF32(&W.view(), r, kCols, row.data());
    dots[r] = qwen35::reference::dotF32(row.data(), W.x(), kCols);
  }
}

bool isPlain(const Weights& W, const std::vector<float>& dots) {
  std::vector<float> want(kRows);
  plainDots(W, want.data());
  const auto bits = [](float value) { return std::bit_cast<uint32_t>(value); };
  return std::ranges::equal(dots, want, {}, bits, bits);
}

void countWork(benchmark::State& state, const Weights& W) {
  state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(kRows * kCols));
  state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(W.view().size));
}

void benchPlain(benchmark::State& state, DType type) {
  const Weights W(type, 1);
  std::vector<float> dots(kRows);
  while (state.KeepRunning()) {
    plainDots(W, dots.data());
    benchmark::DoNotOptimize(dots.data());
  }
  countWork(state, W);
}

void benchDots(benchmark::State& state, DType type, CpuLevel level) {
  const Weights W(type, 1);
  const qwen35::Matvec matvec = qwen35::kernelTable(level).matvec[type];
  std::vector<float> dots(kRows);
  matvec(W.view().data, W.x(), kRows, kCols, dots.data());
  if (!isPlain(W, dots)) return state.SkipWithError("differs from the plain loop");
  while (state.KeepRunning()) {
    matvec(W.view().data, W.x(), kRows, kCols, dots.data());
    benchmark::DoNotOptimize(dots.data());
  }
  countWork(state, W);
}

// Token t's vector is the matrix's own, times t + 1.
std::vector<float> scaledTokens(const Weights& W, size_t tokens) {
  std::vector<float> x(tokens * kCols);
  for (size_t i = 0; i < x.size(); ++i) {
    x[i] = W.x()[i % kCols] * static_cast<float>(i / kCols + 1);
  }
  return x;
}

bool areDots(const Weights& W, qwen35::Matvec matvec, const std::vector<float>& x,
             const std::vector<float>& got) {
  std::vector<float> want(got.size());
  for (size_t t = 0; t * kCols < x.size(); ++t) {
    matvec(W.view().data, x.data() + t * kCols, kRows, kCols, want.data() + t * kRows);
  }
  return got == want;
}

void benchTokens(benchmark::State& state, DType type, CpuLevel level, size_t tokens) {
  const Weights W(type, 1);
  const qwen35::KernelTable& table = qwen35::kernelTable(level);
  const qwen35::Matmul matmul = table.matmul[type];
  const std::vector<float> x = scaledTokens(W, tokens);
  std::vector<float> packed(x.size());
  qwen35::packTokens(x.data(), kCols, tokens, kCols, table.groupTokens, 0, kCols, packed.data());
  std::vector<float> dots(tokens * kRows);
  matmul(W.view().data, packed.data(), tokens, kRows, kCols, dots.data(), kRows);
  if (!areDots(W, table.matvec[type], x, dots)) {
    return state.SkipWithError("differs from one vector at a time");
  }
  while (state.KeepRunning()) {
    matmul(W.view().data, packed.data(), tokens, kRows, kCols, dots.data(), kRows);
    benchmark::DoNotOptimize(dots.data());
  }
  state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(kRows * kCols * tokens));
}

void benchProduct(benchmark::State& state, DType type, CpuLevel level, int threads) {
  const qwen35::ForcedCpuLevel forced(level);
  omp_set_num_threads(threads);
  Weights W(type, kWorkingSet / (kRows * kiv::dtypeBytes(type, kCols)));
  std::vector<float> y(kRows);
  qwen35::matvec({}, W.view(), W.x(), y);
  if (!isPlain(W, y)) return state.SkipWithError("differs from the plain loop");
  while (state.KeepRunning()) {
    qwen35::matvec({}, W.next(), W.x(), y);
    benchmark::DoNotOptimize(y.data());
  }
  countWork(state, W);
}

void registerAll() {
  for (const DType type : kTypes) {
    const std::string name = kiv::dtypeName(type);
    for (const CpuLevel level : qwen35::cpuLevels()) {
      const std::string at = "/" + name + "/" + qwen35::cpuLevelName(level);
      benchmark::RegisterBenchmark(("dots" + at).c_str(),
                                   [=](benchmark::State& state) { benchDots(state, type, level); });
    }
    for (const CpuLevel level : qwen35::cpuLevels()) {
      for (const size_t tokens : {8, 48}) {
        const std::string at =
            "/" + name + "/" + qwen35::cpuLevelName(level) + "/" + std::to_string(tokens);
        benchmark::RegisterBenchmark(("tokens" + at).c_str(), [=](benchmark::State& state) {
          benchTokens(state, type, level, tokens);
        });
      }
    }
    benchmark::RegisterBenchmark(("dots/" + name + "/plain").c_str(),
                                 [=](benchmark::State& state) { benchPlain(state, type); });
  }
  const CpuLevel best = qwen35::cpuLevels().front();
  for (const DType type : kTypes) {
    for (int threads = 1; threads <= omp_get_num_procs(); threads *= 2) {
      const std::string name = std::string("product/") + kiv::dtypeName(type) + "/" +
                               qwen35::cpuLevelName(best) + "/" + std::to_string(threads);
      benchmark::RegisterBenchmark(name.c_str(), [=](benchmark::State& state) {
        benchProduct(state, type, best, threads);
      })->UseRealTime();
    }
  }
}

}  // namespace

int main(int argc, char** argv) {
  registerAll();
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
