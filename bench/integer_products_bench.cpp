// SPDX-License-Identifier: Apache-2.0
// The decoder's integer products beside its exact ones, on one thread, by encoding and instruction
// set. The two take turns, and the ratio is the median of the rounds', so that a busy machine
// disturbs both alike.
//
//   matvec   one vector, the matrix again and again from the cache
//   matmul   48 vectors at once
//   bare     a loop of nothing but the multiplications that matmul consists of: its ceiling
//   round    the activations of a product to integers, in microseconds
//
// Rates are billions of weights times vectors a second. Every product is first held against the
// plain loop, bit for bit; one that differs ends the program.
#include <CLI/CLI.hpp>
#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "kernels/integer_kernels.h"
#include "kernels/integer_reference.h"
#include "kernels/kernel_table.h"
#include "kernels/packing.h"
#include "kiv/quant/row_codec.h"

namespace {

using kiv::DType;
using qwen35::IntegerKernels;
using qwen35::IntegerLevel;
using qwen35::KernelTable;

constexpr size_t kTokens = 48;
constexpr DType kTypes[] = {DType::Q4_K, DType::Q5_K, DType::Q6_K, DType::Q8_0};

double seconds() {
  const auto now = std::chrono::steady_clock::now().time_since_epoch();
  return std::chrono::duration<double>(now).count();
}

template <typename Work>
double timeOf(const Work& work) {
  const double start = seconds();
  work();
  return seconds() - start;
}

double median(std::vector<double> values) {
  std::ranges::sort(values);
  return values[values.size() / 2];
}

struct Product {
  Product(DType of, size_t rowCount, size_t colCount)
      : type(of),
        rows(rowCount),
        cols(colCount),
        weights(kiv::dtypeBytes(of, cols) * rows),
        x(kTokens * cols),
        y(kTokens * rows) {
    std::mt19937 random(1);
    std::normal_distribution<float> normal;
    std::vector<float> row(cols);
    for (size_t r = 0; r < rows; ++r) {
      for (float& w : row) w = normal(random);
      kiv::encodeRow(type, row.data(), cols, rowAt(r));
    }
    for (float& v : x) v = normal(random);
  }

  uint8_t* rowAt(size_t r) { return weights.data() + r * kiv::dtypeBytes(type, cols); }

  DType type;
  size_t rows;
  size_t cols;
  std::vector<uint8_t> weights;
  std::vector<float> x;
  std::vector<float> y;
};

// One level's kernels with their inputs in place.
class Pair {
 public:
  Pair(Product& product, const IntegerLevel& level)
      : p_(product),
        fast_(*level.kernels),
        exact_(qwen35::kernelTable(level.cpuLevel)),
        vector_(qwen35::roundedBlocks(p_.cols)),
        packed_(kTokens * vector_.size() * qwen35::kTokenWords),
        packedFloats_(p_.x.size()) {
    roundVector();
    roundTokens();
    qwen35::packTokens(p_.x.data(), p_.cols, kTokens, p_.cols, exact_.groupTokens, 0, p_.cols,
                       packedFloats_.data());
  }

  void roundVector() { fast_.roundVector(p_.x.data(), p_.cols, vector_.data()); }
  void roundTokens() {
    fast_.roundTokens(p_.x.data(), p_.cols, kTokens, p_.cols, 0, vector_.size(), packed_.data());
  }
  void fastMatvec() {
    fast_.matvec[p_.type](p_.weights.data(), vector_.data(), p_.rows, p_.cols, p_.y.data());
  }
  void exactMatvec() {
    exact_.matvec[p_.type](p_.weights.data(), p_.x.data(), p_.rows, p_.cols, p_.y.data());
  }
  void fastMatmul() {
    fast_.matmul[p_.type](p_.weights.data(), packed_.data(), kTokens, p_.rows, p_.cols, p_.y.data(),
                          p_.rows);
  }
  void exactMatmul() {
    exact_.matmul[p_.type](p_.weights.data(), packedFloats_.data(), kTokens, p_.rows, p_.cols,
                           p_.y.data(), p_.rows);
  }

  bool isPlain() {
    std::vector<qwen35::reference::RoundedBlock> rounded;
    for (size_t c = 0; c < p_.cols; c += qwen35::kRoundedColumns) {
      const size_t count = std::min(qwen35::kRoundedColumns, p_.cols - c);
      rounded.push_back(qwen35::reference::roundBlock(p_.x.data() + c, count));
    }
    std::vector<float> want(p_.rows);
    for (size_t r = 0; r < p_.rows; ++r) {
      want[r] = qwen35::reference::integerDot(p_.type, p_.rowAt(r), rounded.data(), p_.cols);
    }
    const auto same = [&] {
      return std::memcmp(p_.y.data(), want.data(), want.size() * sizeof(float)) == 0;
    };
    fastMatvec();
    const bool matvecIsPlain = same();
    fastMatmul();
    return matvecIsPlain && same();
  }

 private:
  Product& p_;
  const IntegerKernels& fast_;
  const KernelTable& exact_;
  std::vector<qwen35::RoundedVector> vector_;
  std::vector<uint32_t> packed_;
  std::vector<float> packedFloats_;
};

struct Turns {
  double exact;  // seconds, the median
  double fast;
  double ratio;  // of the rounds, the median
};

template <typename Exact, typename Fast>
Turns takeTurns(int rounds, const Exact& exact, const Fast& fast) {
  std::vector<double> exacts;
  std::vector<double> fasts;
  std::vector<double> ratios;
  for (int i = 0; i < rounds; ++i) {
    exacts.push_back(timeOf(exact));
    fasts.push_back(timeOf(fast));
    ratios.push_back(exacts.back() / fasts.back());
  }
  return {median(exacts), median(fasts), median(ratios)};
}

// Loops over independent sums, in assembly so that no compiler shortens them and no option is
// needed. Each gives multiplications and additions a second.
// clang-format off
#define BARE_12(STEP) \
  STEP(0) STEP(1) STEP(2) STEP(3) STEP(4) STEP(5) STEP(6) STEP(7) STEP(8) STEP(9) STEP(10) STEP(11)
#define BARE_24(STEP)                                                                       \
  BARE_12(STEP)                                                                             \
  STEP(16)                                                                                  \
  STEP(17) STEP(18) STEP(19) STEP(20) STEP(21) STEP(22) STEP(23) STEP(24) STEP(25) STEP(26) \
      STEP(27)
#define BARE_VNNI(n) "vpdpwssd %%zmm14, %%zmm15, %%zmm" #n "\n"
#define BARE_AVX512BW(n)                 \
  "vpmaddwd %%zmm14, %%zmm15, %%zmm13\n" \
  "vpaddd %%zmm13, %%zmm" #n ", %%zmm" #n "\n"
#define BARE_AVX2(n)                     \
  "vpmaddwd %%ymm14, %%ymm15, %%ymm13\n" \
  "vpaddd %%ymm13, %%ymm" #n ", %%ymm" #n "\n"
#define BARE_BASELINE(n)       \
  "movdqa %%xmm15, %%xmm13\n"  \
  "pmaddwd %%xmm14, %%xmm13\n" \
  "paddd %%xmm13, %%xmm" #n "\n"
#define BARE_LOOP(SUMS, STEP, END)                                                             \
  asm volatile("1:\n" SUMS(STEP) "dec %0\njnz 1b\n" END                                        \
               : "+r"(turns)                                                                   \
               :                                                                               \
               : "cc", "xmm0", "xmm1", "xmm2", "xmm3", "xmm4", "xmm5", "xmm6", "xmm7", "xmm8", \
                 "xmm9", "xmm10", "xmm11", "xmm12", "xmm13", "xmm14", "xmm15")
// clang-format on

double bareRate(const std::string& level) {
  constexpr long kTurns = 100000;
  double best = 0;
  for (int i = 0; i < 20; ++i) {
    long turns = kTurns;
    double perTurn = 0;
    const double start = seconds();
    if (level == "avx512vnni") {
      BARE_LOOP(BARE_24, BARE_VNNI, "vzeroupper\n");
      perTurn = 24 * 32;
    } else if (level == "avx512bw") {
      BARE_LOOP(BARE_24, BARE_AVX512BW, "vzeroupper\n");
      perTurn = 24 * 32;
    } else if (level == "avx2") {
      BARE_LOOP(BARE_12, BARE_AVX2, "vzeroupper\n");
      perTurn = 12 * 16;
    } else {
      BARE_LOOP(BARE_12, BARE_BASELINE, "");
      perTurn = 12 * 8;
    }
    best = std::max(best, perTurn * kTurns / (seconds() - start));
  }
  return best;
}

bool benchPair(Product& product, const IntegerLevel& level, int rounds, double bare) {
  Pair pair(product, level);
  const char* type = kiv::dtypeName(product.type);
  if (!pair.isPlain()) {
    std::fprintf(stderr, "%s %s: differs from the plain loop\n", type, level.name);
    return false;
  }
  const Turns one = takeTurns(
      rounds, [&] { pair.exactMatvec(); }, [&] { pair.fastMatvec(); });
  const Turns many = takeTurns(
      rounds, [&] { pair.exactMatmul(); }, [&] { pair.fastMatmul(); });
  const Turns round = takeTurns(
      rounds, [&] { pair.roundVector(); }, [&] { pair.roundTokens(); });
  const auto weights = static_cast<double>(product.rows * product.cols) * 1e-9;
  std::printf("%-5s %-10s | %6.1f %6.1f %5.2f | %6.1f %6.1f %5.2f | %6.1f %4.0f %% | %5.1f %6.1f\n",
              type, level.name, weights / one.exact, weights / one.fast, one.ratio,
              weights * kTokens / many.exact, weights * kTokens / many.fast, many.ratio,
              bare * 1e-9, 100 * weights * kTokens / many.fast / (bare * 1e-9), round.exact * 1e6,
              round.fast * 1e6);
  return true;
}

}  // namespace

int main(int argc, char** argv) {
  CLI::App app{"Integer products beside exact ones, on one thread"};
  size_t rows = 512;
  size_t cols = 2560;
  int rounds = 31;
  std::string only;
  app.add_option("--rows", rows, "rows of the matrix")->check(CLI::Range(1, 1 << 20));
  app.add_option("--cols", cols, "columns of the matrix, in units of 256")
      ->check(CLI::Range(256, 1 << 16));
  app.add_option("--rounds", rounds, "turns of each side")->check(CLI::Range(1, 10000));
  app.add_option("--level", only, "one level instead of all that the processor has");
  CLI11_PARSE(app, argc, argv);
  cols -= cols % 256;

  std::printf("%zu rows, %zu columns; rates in billions a second, rounding in microseconds\n", rows,
              cols);
  std::printf(
      "                 |  matvec of one vector |    matmul of %zu       |  bare, reached | "
      "round 1, %zu\n",
      kTokens, kTokens);
  std::printf("                 |  exact   fast   ratio |  exact   fast   ratio |\n");
  for (const DType type : kTypes) {
    Product product(type, rows, cols);
    for (const IntegerLevel& level : qwen35::integerLevels()) {
      if (!level.isSupported() || (!only.empty() && only != level.name)) continue;
      if (!benchPair(product, level, rounds, bareRate(level.name))) return 1;
    }
  }
  return 0;
}
