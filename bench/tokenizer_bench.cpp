// SPDX-License-Identifier: Apache-2.0
// How fast text becomes tokens, with a vocabulary of a large model's size:
//
//   tokenizer_bench [--benchmark_filter=...] [--benchmark_repetitions=9]
//
// The vocabulary is learnt from one half of the project's own files and of the
// licences that Debian ships, and encodes the other half. Everything is first
// held against encoding as it is defined, hostile texts by a part of them.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

#include "corpus.h"
#include "kiv/plain_encoder.h"
#include "kiv/tokenizer.h"
#include "support/trained_vocabulary.h"

namespace {

namespace fs = std::filesystem;
using zembench::filesBelow;
using zembench::Halves;
using zemtest::SpaceMarker;

constexpr size_t kVocabulary = 248320;
constexpr size_t kMillion = 1000000;

const Halves& prose() {
  static const Halves kHalves =
      filesBelow({fs::path(ZEM_SOURCE) / "docs", "/usr/share/common-licenses"},
                 {".md", "", ".0", ".1", ".2", ".3"});
  return kHalves;
}

const Halves& code() {
  static const Halves kHalves =
      filesBelow({fs::path(ZEM_SOURCE) / "src", fs::path(ZEM_SOURCE) / "plugins",
                  fs::path(ZEM_SOURCE) / "tools", fs::path(ZEM_SOURCE) / "tests"},
                 {".cpp", ".h", ".c", ".comp"});
  return kHalves;
}

std::string repeated(const std::string& unit, size_t count) {
  std::string text;
  for (size_t i = 0; i < count; ++i) text += unit;
  return text;
}

std::string randomBytes(size_t count, const std::string& alphabet) {
  std::mt19937 random(1);
  std::string text(count, '\0');
  for (char& c : text) {
    c = alphabet.empty() ? static_cast<char>(random()) : alphabet[random() % alphabet.size()];
  }
  return text;
}

class Vocabulary {
 public:
  explicit Vocabulary(SpaceMarker marker)
      : data_(zemtest::trainVocabulary(prose().learnt + code().learnt, kVocabulary, marker)),
        plain_(data_) {
    if (!tokenizer_.load(data_).ok()) throw std::runtime_error("the vocabulary does not load");
  }

  const kiv::Tokenizer& tokenizer() const { return tokenizer_; }

  void verify(const std::string& text) {
    std::vector<int32_t> ids;
    const bool encoded = tokenizer_.encode(text, ids, true).ok();
    if (!encoded || ids != plain_.encode(text)) throw std::runtime_error("the encoder is wrong");
  }

 private:
  kiv::TokenizerData data_;
  zemtest::PlainEncoder plain_;
  kiv::Tokenizer tokenizer_;
};

void encode(benchmark::State& state, const kiv::Tokenizer& tokenizer, const std::string& text) {
  std::vector<int32_t> ids;
  for (auto _ : state) {
    if (!tokenizer.encode(text, ids, false).ok()) state.SkipWithError("encoding failed");
    benchmark::DoNotOptimize(ids.data());
  }
  state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(text.size()));
  state.counters["bytes_per_token"] =
      static_cast<double>(text.size()) / static_cast<double>(std::max<size_t>(1, ids.size()));
}

// Registers the benchmark after holding the first `verified` bytes of the text
// against the plain encoder, which is quadratic in the length of a piece.
void add(const std::string& name, const std::string& text, size_t verified, Vocabulary& used) {
  used.verify(text.substr(0, verified));
  const auto run = [&used, text](benchmark::State& state) {
    encode(state, used.tokenizer(), text);
  };
  benchmark::RegisterBenchmark(name.c_str(), run)
      ->Unit(benchmark::kMillisecond)
      ->ComputeStatistics("min", [](const std::vector<double>& times) {
        return *std::min_element(times.begin(), times.end());
      });
}

void addAll(const std::string& style, Vocabulary& used) {
  add(style + "/prose", prose().unseen, 50000, used);
  add(style + "/code", code().unseen, 50000, used);
  add(style + "/prompt of 400 bytes", prose().unseen.substr(0, 400), 400, used);
  for (const size_t count : {kMillion / 10, kMillion}) {
    const std::string name = style + (count == kMillion ? "/1M " : "/100k ");
    add(name + "equal letters", std::string(count, 'a'), 500, used);
    add(name + "spaces", std::string(count, ' '), 500, used);
    add(name + "random letters", randomBytes(count, "etaoinshrdlucmfwypvbgkqjxz"), 300, used);
    add(name + "random bytes", randomBytes(count, ""), 20000, used);
    add(name + "special tokens", repeated("<|im_end|>", count), 20000, used);
    add(name + "nearly special tokens", repeated("<|im_en", count / 7), 20000, used);
    add(name + "line feeds", std::string(count, '\n'), 500, used);
  }
}

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 2;
  try {
    static Vocabulary byteLevel(SpaceMarker::ByteLevel);
    static Vocabulary lowerBlock(SpaceMarker::LowerBlock);
    addAll("U+0120", byteLevel);
    addAll("U+2581", lowerBlock);
    benchmark::RunSpecifiedBenchmarks();
  } catch (const std::exception& error) {
    std::fprintf(stderr, "tokenizer_bench: %s\n", error.what());
    return 1;
  }
  benchmark::Shutdown();
  return 0;
}
