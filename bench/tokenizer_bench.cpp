// How fast text becomes tokens, with a vocabulary of a large model's size:
//
//   tokenizer_bench [--benchmark_filter=...]
//
// The vocabulary is learnt from one half of the project's own files and of the
// licences that Debian ships, and encodes the other half. Everything is first
// held against encoding as it is defined, hostile texts by a part of them.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

#include "kiv/plain_encoder.h"
#include "kiv/tokenizer.h"
#include "support/trained_vocabulary.h"

namespace {

namespace fs = std::filesystem;
using kiv::test::SpaceMarker;

constexpr size_t kVocabulary = 248320;
constexpr size_t kMillion = 1000000;

struct Halves {
  std::string learnt;
  std::string unseen;
};

std::string contents(const fs::path& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

// The files below `folders`, every second one apart.
Halves filesBelow(const std::vector<fs::path>& folders, const std::set<std::string>& extensions) {
  std::set<fs::path> files;
  for (const fs::path& folder : folders) {
    if (!fs::exists(folder)) continue;
    for (const auto& entry : fs::recursive_directory_iterator(folder)) {
      const bool wanted = extensions.count(entry.path().extension().string()) != 0;
      if (entry.is_regular_file() && !entry.is_symlink() && wanted) files.insert(entry.path());
    }
  }
  Halves halves;
  bool learn = true;
  for (const fs::path& file : files) {
    (learn ? halves.learnt : halves.unseen) += contents(file);
    learn = !learn;
  }
  return halves;
}

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

struct Vocabulary {
  kiv::TokenizerData data;
  kiv::Tokenizer tokenizer;
};

const Vocabulary& vocabulary(SpaceMarker marker) {
  const auto make = [](SpaceMarker style) {
    Vocabulary made;
    made.data = kiv::test::trainVocabulary(prose().learnt + code().learnt, kVocabulary, style);
    if (!made.tokenizer.load(made.data).ok()) throw std::runtime_error("no vocabulary");
    return made;
  };
  static const Vocabulary kByteLevel = make(SpaceMarker::ByteLevel);
  if (marker == SpaceMarker::ByteLevel) return kByteLevel;
  static const Vocabulary kLowerBlock = make(SpaceMarker::LowerBlock);
  return kLowerBlock;
}

std::vector<int32_t> idsOf(const kiv::Tokenizer& tokenizer, const std::string& text) {
  std::vector<int32_t> ids;
  if (!tokenizer.encode(text, ids, true).ok()) throw std::runtime_error("encoding failed");
  return ids;
}

void verify(const Vocabulary& vocabulary, const std::string& text) {
  kiv::PlainEncoder plain(vocabulary.data);
  if (idsOf(vocabulary.tokenizer, text) != plain.encode(text)) {
    std::fprintf(stderr, "tokenizer_bench: the encoder is wrong\n");
    std::exit(1);
  }
}

void encode(benchmark::State& state, const std::string& text, size_t verified, SpaceMarker marker) {
  const Vocabulary& used = vocabulary(marker);
  verify(used, text.substr(0, verified));
  std::vector<int32_t> ids;
  for (auto _ : state) {
    if (!used.tokenizer.encode(text, ids, false).ok()) state.SkipWithError("encoding failed");
    benchmark::DoNotOptimize(ids.data());
  }
  state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(text.size()));
  state.counters["bytes_per_token"] =
      static_cast<double>(text.size()) / static_cast<double>(std::max<size_t>(1, ids.size()));
}

void add(const std::string& name, const std::string& text, size_t verified, SpaceMarker marker) {
  const char* style = marker == SpaceMarker::ByteLevel ? "/U+0120" : "/U+2581";
  benchmark::RegisterBenchmark((name + style).c_str(), encode, text, verified, marker)
      ->Unit(benchmark::kMillisecond);
}

void addAll(SpaceMarker marker) {
  add("prose", prose().unseen, 50000, marker);
  add("code", code().unseen, 50000, marker);
  add("prompt", prose().unseen.substr(0, 400), 400, marker);
  for (const size_t count : {kMillion / 10, kMillion}) {
    const std::string size = count == kMillion ? "1M " : "100k ";
    add(size + "equal letters", std::string(count, 'a'), 500, marker);
    add(size + "spaces", std::string(count, ' '), 500, marker);
    add(size + "random letters", randomBytes(count, "etaoinshrdlucmfwypvbgkqjxz"), 300, marker);
    add(size + "random bytes", randomBytes(count, ""), 20000, marker);
    add(size + "special tokens", repeated("<|im_end|>", count), 20000, marker);
    add(size + "near specials", repeated("<|im_en", count / 7), 20000, marker);
    add(size + "line feeds", std::string(count, '\n'), 500, marker);
  }
}

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 2;
  addAll(SpaceMarker::ByteLevel);
  addAll(SpaceMarker::LowerBlock);
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
