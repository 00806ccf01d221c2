// SPDX-License-Identifier: Apache-2.0
// A program that links the library: opens a model, encodes a text, and continues it
// with the CPU decoder and the library's own sampler.
//
//   continue_text MODEL TEXT [TOKENS]
//
// The continuation goes to standard output. The exit status is 0 for success, 1
// when something failed and one line says why, 2 for wrong arguments.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <random>
#include <string>
#include <vector>

#include "kiv/sampler.h"
#include "kiv/status.h"
#include "kiv/tokenizer.h"
#include "kiv/zem_loader.h"
#include "qwen35_check.h"
#include "qwen35_model.h"

namespace {

constexpr size_t kPositions = 2048;

// A model that is ready to compute. The views of `model` point into `loader`.
struct Decoder {
  kiv::ZEMLoader loader;
  kiv::Tokenizer tokenizer;
  qwen35::Model model;
};

kiv::Status failure(const char* what) { return {kiv::StatusCode::InvalidFormat, what}; }

kiv::Status open(Decoder& decoder, const char* path) {
  if (kiv::Status status = decoder.loader.open(path); !status.ok()) return status;
  if (kiv::Status status = decoder.tokenizer.load(decoder.loader.tokenizer()); !status.ok()) {
    return status;
  }
  std::string architecture;
  decoder.loader.getMetaStr("general.architecture", architecture);
  if (architecture != "qwen35") return failure("not a model of this architecture");
  if (!qwen35::initLayers(decoder.loader, decoder.model, kPositions) ||
      !qwen35::bindModel(decoder.loader, decoder.model, kPositions)) {
    return failure("a tensor is missing");
  }
  return qwen35::checkWeights(decoder.loader, decoder.model);
}

kiv::Status continueText(Decoder& decoder, const std::string& text, size_t count) {
  std::vector<int32_t> ids;
  const bool addBos = decoder.loader.tokenizer().addBos;
  if (kiv::Status status = decoder.tokenizer.encode(text, ids, addBos); !status.ok()) return status;
  if (ids.empty()) return failure("the text has no tokens");
  if (ids.size() > kPositions || count > kPositions - ids.size()) {
    return failure("text and continuation are too long");
  }

  kiv::SamplerConfig config;
  config.temperature = 0.8F;
  config.topK = 40;
  config.repeatPenalty = 1.1F;
  std::mt19937 rng(42);
  const kiv::Sampler sampler(rng, config);

  qwen35::Model& model = decoder.model;
  std::vector<float> x(model.nEmb);
  std::vector<float> logits(model.nVocab);
  const size_t promptSize = ids.size();
  for (size_t pos = 0; pos + 1 < promptSize + count; ++pos) {
    if (static_cast<size_t>(ids[pos]) >= model.nVocab) return failure("an id without embedding");
    qwen35::embedRow(model, static_cast<size_t>(ids[pos]), x.data());
    qwen35::forwardToken(model, x.data(), pos, logits.data());
    if (pos + 1 < promptSize) continue;
    ids.push_back(sampler.sample(logits.data(), logits.size(), ids));
    if (ids.back() == decoder.tokenizer.eos()) break;
    std::string piece;
    if (kiv::Status status = decoder.tokenizer.decode({ids.back()}, piece); !status.ok()) {
      return status;
    }
    std::fwrite(piece.data(), 1, piece.size(), stdout);
    std::fflush(stdout);
  }
  std::puts("");
  return {};
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 3 || argc > 4) {
    std::fprintf(stderr, "usage: continue_text MODEL TEXT [TOKENS]\n");
    return 2;
  }
  const size_t count = argc == 4 ? std::strtoul(argv[3], nullptr, 10) : 32;
  Decoder decoder;
  kiv::Status status = open(decoder, argv[1]);
  if (status.ok()) status = continueText(decoder, argv[2], count);
  if (status.ok()) return 0;
  std::fprintf(stderr, "continue_text: %s: %s\n", argv[1], status.message().c_str());
  return 1;
}
