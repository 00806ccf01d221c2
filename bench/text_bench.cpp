// SPDX-License-Identifier: Apache-2.0
// How fast the exact tokenizer loads, encodes and decodes, with a vocabulary of a large
// model's size:
//
//   text_bench [--benchmark_filter=...] [--benchmark_repetitions=9]
//
// The vocabulary is learnt from one half of the project's own files and of the
// licences that Debian ships, and encodes the other half. Encoding is first held
// against encoding as it is defined.
//
// And what it costs to hold a reply to a form: the test of each sampled token ("accept"),
// which is the usual path, and the mask over all tokens ("mask"), for when one is refused.
// Masks are first held against the tests of single tokens.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <ctime>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <random>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "corpus.h"
#include "engine/text/byte_vocabulary.h"
#include "engine/text/constraint.h"
#include "engine/text/plain_tokenizer.h"
#include "engine/text/tokenizer.h"
#include "engine/text/unicode/nfc.h"
#include "support/trained_vocabulary.h"

namespace {

using zem::text::AddedTokens;
using zem::text::Constraint;
using zem::text::ConstraintState;
using zem::text::Tokenizer;
using zem::text::TokenTexts;
using zem::text::test::ByteVocabulary;
using zembench::filesBelow;
using zembench::Halves;

constexpr size_t kVocabulary = 248320;
constexpr size_t kBytes = 4096;  // at most so many tokens make the characters
constexpr size_t kMillion = 1000000;
constexpr size_t kVerified = 20000;

Halves prose() {
  return filesBelow({std::filesystem::path(ZEM_SOURCE) / "docs", "/usr/share/common-licenses"},
                    {".md", "", ".0", ".1", ".2", ".3"});
}

Halves code() {
  const std::filesystem::path source(ZEM_SOURCE);
  return filesBelow({source / "src", source / "plugins", source / "tools", source / "tests"},
                    {".cpp", ".h", ".c", ".comp"});
}

// Words of several scripts, a part of them decomposed.
std::string mixedScripts(size_t bytes) {
  const std::vector<std::string> words = {"日本語",     "の",      "テキスト", "한국어",  "русский",
                                          "язык",       "ภาษาไทย", "हिन्दी",    "العربية", "naïve",
                                          "cafe\u0301", "Größe",   "ελληνικά", "😀",       "，",
                                          "。",         "1",       "23"};
  std::mt19937 random(1);
  std::string text;
  while (text.size() < bytes)
    text += words[random() % words.size()] + (random() % 3 == 0 ? "" : " ");
  return text;
}

// The file's text with the tokens in the order of their ids, as published files have them.
std::string inIdOrder(nlohmann::json root) {
  std::vector<std::string> tokens(kVocabulary + kBytes);
  for (const auto& [text, id] : root["model"]["vocab"].items()) tokens.at(id) = text;
  std::string listed;
  for (size_t id = 0; id < tokens.size(); ++id) {
    if (tokens[id].empty()) continue;
    listed +=
        (listed.empty() ? "{" : ",") + nlohmann::json(tokens[id]).dump() + ":" + std::to_string(id);
  }
  const std::string mark = "\"listed here\"";
  root["model"]["vocab"] = nlohmann::json::parse(mark);
  std::string text = root.dump();
  return text.replace(text.find(mark), mark.size(), listed + "}");
}

struct Model {
  explicit Model(const std::string& learnt) {
    ByteVocabulary vocabulary = ByteVocabulary::fromLearnt(
        zemtest::trainVocabulary(learnt, kVocabulary, zemtest::SpaceMarker::ByteLevel));
    for (const char* special : {"<|endoftext|>", "<|im_start|>", "<|im_end|>"}) {
      vocabulary.add(special, true);
    }
    json = inIdOrder(vocabulary.root());
    plain.emplace(vocabulary.root());
    if (!tokenizer.loadJson(json).ok()) throw std::runtime_error("the vocabulary does not load");
  }

  std::vector<int32_t> encoded(const std::string& text) const {
    std::vector<int32_t> ids;
    if (!tokenizer.encode(text, AddedTokens::Recognised, ids).ok()) {
      throw std::runtime_error("encoding failed");
    }
    return ids;
  }

  // The beginning of a text as it is defined, and all of it back again.
  void verify(const std::string& text, size_t defined) const {
    std::string start = text.substr(0, defined);
    start.resize(start.size() - std::min<size_t>(start.size(), 4));
    while (!start.empty() && (start.back() & 0x80) != 0) start.pop_back();
    for (size_t at = 0; at < start.size(); at += 500) {
      std::string part = start.substr(at, 500);
      if (at + 500 < start.size()) part = part.substr(0, part.find_last_of(' ') + 1);
      const bool whole = zem::text::wellFormedLength(part) == part.size();
      if (whole && encoded(part) != plain->encode(part)) throw std::runtime_error("wrong ids");
    }
    if (tokenizer.decode(encoded(text)) != zem::text::unicode::toNfc(text)) {
      throw std::runtime_error("a text does not come back");
    }
  }

  std::string json;
  std::optional<zem::text::test::PlainTokenizer> plain;
  Tokenizer tokenizer;
};

template <typename Run>
void add(const std::string& name, const Run& run) {
  benchmark::RegisterBenchmark(name.c_str(), run)
      ->Unit(benchmark::kMillisecond)
      ->ComputeStatistics("min", [](const std::vector<double>& times) {
        return *std::min_element(times.begin(), times.end());
      });
}

void addEncode(const Model& model, const std::string& name, const std::string& text,
               size_t defined) {
  model.verify(text, defined);
  add("encode/" + name, [&model, text](benchmark::State& state) {
    std::vector<int32_t> ids;
    for (auto _ : state) {
      if (!model.tokenizer.encode(text, AddedTokens::Recognised, ids).ok()) {
        state.SkipWithError("encoding failed");
      }
      benchmark::DoNotOptimize(ids.data());
    }
    state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(text.size()));
    state.counters["bytes_per_token"] =
        static_cast<double>(text.size()) / static_cast<double>(std::max<size_t>(1, ids.size()));
  });
}

void addDecode(const Model& model, const std::string& name, const std::string& text) {
  add("decode/" + name, [&model, ids = model.encoded(text)](benchmark::State& state) {
    int64_t bytes = 0;
    for (auto _ : state) bytes += static_cast<int64_t>(model.tokenizer.decode(ids).size());
    state.SetBytesProcessed(bytes);
  });
  add("decode one by one/" + name, [&model, ids = model.encoded(text)](benchmark::State& state) {
    int64_t bytes = 0;
    for (auto _ : state) {
      zem::text::TextDecoder decoder(model.tokenizer);
      for (const int32_t id : ids) bytes += static_cast<int64_t>(decoder.push(id).size());
      bytes += static_cast<int64_t>(decoder.finish().size());
    }
    state.SetBytesProcessed(bytes);
  });
}

void addLoad(const Model& model) {
  add("load", [&model](benchmark::State& state) {
    for (auto _ : state) {
      Tokenizer tokenizer;
      if (!tokenizer.loadJson(model.json).ok()) state.SkipWithError("loading failed");
    }
    state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(model.json.size()));
  });
}

// ---- Replies of a form

// Reports the percentage of a decoding step of 200 ms, about that of a model of four billion
// weights on two threads, that the work for one token takes on one.
class StepShare {
 public:
  void report(benchmark::State& state, size_t tokens) const {
    constexpr double kStepSeconds = 0.2;
    const double seconds = static_cast<double>(std::clock() - begin_) / CLOCKS_PER_SEC;
    const double all = static_cast<double>(state.iterations()) * static_cast<double>(tokens);
    state.counters["percent_of_step"] = seconds / all / kStepSeconds * 100;
  }

 private:
  std::clock_t begin_ = std::clock();
};

constexpr const char* kSchema = R"({
  "type": "object", "required": ["name", "age", "tags"], "additionalProperties": false,
  "properties": {
    "name": {"type": "string", "maxLength": 200}, "age": {"type": "integer", "minimum": 0},
    "mail": {"type": "string", "pattern": "^[a-z.]+@[a-z.]+$"},
    "tags": {"type": "array", "items": {"enum": ["red", "green", "blue"]}},
    "notes": {"type": "array", "items": {"type": "string"}}}})";
const std::string kReply =
    R"({"name": "Ada Lovelace", "age": 36, "tags": ["red", "blue"], "mail": "ada@example.org", )"
    R"("notes": ["The engine might compose elaborate pieces of music", "of any complexity"]})";

struct Place {
  const char* name;
  const char* before;  // of a reply
};
constexpr Place kPlaces[] = {{"beginning", ""},
                             {"key", "{\""},
                             {"in text", R"({"name": "Ada)"},
                             {"in a pattern", R"({"mail": "ada)"},
                             {"in a number", R"({"age": 3)"},
                             {"word of a list", R"({"tags": ["red", )"}};

std::shared_ptr<const Constraint> compiled(const char* schema) {
  zem::text::Json value;
  std::shared_ptr<const Constraint> constraint;
  if (!zem::text::parseJson(schema, "schema", value).ok() ||
      !Constraint::compile(value, {}, constraint).ok()) {
    throw std::runtime_error("a schema does not compile");
  }
  return constraint;
}

TokenTexts textsOf(const Tokenizer& tokenizer) {
  std::vector<std::string> texts(kVocabulary);
  for (size_t id = 0; id < std::min(texts.size(), tokenizer.size()); ++id) {
    const auto token = static_cast<int32_t>(id);
    if (!tokenizer.isSpecial(token)) texts[id] = tokenizer.bytesOf(token);
  }
  return TokenTexts(texts);
}

void verifyMask(const ConstraintState& state, const TokenTexts& tokens) {
  std::vector<bool> allowed;
  state.mask(tokens, allowed);
  for (size_t i = 0; i < tokens.sorted().size(); i += 97) {
    const TokenTexts::Entry& entry = tokens.sorted()[i];
    if (allowed[entry.id] != state.accepts(entry.text)) throw std::runtime_error("a wrong mask");
  }
}

void addMask(const std::string& name, const char* schema, const Place& place,
             const TokenTexts& tokens) {
  ConstraintState begun = Constraint::begin(compiled(schema));
  if (!begun.advance(std::string_view(place.before))) throw std::runtime_error("a wrong place");
  verifyMask(begun, tokens);
  add("mask/" + name + "/" + place.name, [begun, &tokens](benchmark::State& state) {
    std::vector<bool> allowed;
    const StepShare share;
    for (auto _ : state) {
      begun.mask(tokens, allowed);
      benchmark::DoNotOptimize(allowed);
    }
    share.report(state, 1);
    state.counters["allowed"] =
        static_cast<double>(std::count(allowed.begin(), allowed.end(), true));
  });
}

// The time of all tokens of a reply; each is tested and taken.
void addAccept(const Model& model, const std::string& name, const char* schema) {
  add("accept/" + name, [&model, constraint = compiled(schema),
                         ids = model.encoded(kReply)](benchmark::State& state) {
    const StepShare share;
    for (auto _ : state) {
      ConstraintState reply = Constraint::begin(constraint);
      for (const int32_t id : ids) {
        const std::string_view text = model.tokenizer.bytesOf(id);
        if (!reply.accepts(text) || !reply.advance(text)) state.SkipWithError("refused");
      }
      if (!reply.complete()) state.SkipWithError("not complete");
    }
    state.counters["tokens"] = static_cast<double>(ids.size());
    share.report(state, ids.size());
  });
}

void addReplies(const Model& model, const TokenTexts& tokens) {
  for (const auto& [name, schema] : {std::pair("any JSON", "true"), std::pair("schema", kSchema)}) {
    addAccept(model, name, schema);
    for (const Place& place : kPlaces) addMask(name, schema, place, tokens);
  }
}

std::string repeated(const std::string& unit, size_t count) {
  std::string text;
  for (size_t i = 0; i < count; ++i) text += unit;
  return text;
}

void addAll(const Model& model, const std::string& proseText, const std::string& codeText) {
  addLoad(model);
  addEncode(model, "prose", proseText, kVerified);
  addEncode(model, "code", codeText, kVerified);
  addEncode(model, "many scripts", mixedScripts(kMillion), kVerified);
  addEncode(model, "prompt of 400 bytes", proseText.substr(0, 400), 400);
  addEncode(model, "1M equal letters", std::string(kMillion, 'a'), 0);
  addEncode(model, "1M spaces", std::string(kMillion, ' '), 0);
  addEncode(model, "1M marks", repeated("\xCC\x80\xCC\xA3", kMillion / 4), 0);
  addEncode(model, "1M nearly special tokens", repeated("<|im_en", kMillion / 7), 0);
  addDecode(model, "prose", proseText);
}

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 2;
  try {
    const Halves texts = prose();
    const Halves sources = code();
    const Model model(texts.learnt + sources.learnt);
    const TokenTexts tokens = textsOf(model.tokenizer);
    addAll(model, texts.unseen, sources.unseen);
    addReplies(model, tokens);
    benchmark::RunSpecifiedBenchmarks();
  } catch (const std::exception& error) {
    std::fprintf(stderr, "text_bench: %s\n", error.what());
    return 1;
  }
  benchmark::Shutdown();
  return 0;
}
