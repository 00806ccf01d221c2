// SPDX-License-Identifier: Apache-2.0
// libraries MODEL TEXT: continues TEXT by 96 tokens, the likeliest each, with the
// installed loader, tokenizer, decoder and sampler: what the plug-in does.
#include <cstdint>
#include <cstdio>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

#include "installed_headers.h"

namespace {

constexpr size_t kPositions = 512;
constexpr size_t kTokens = 96;

void require(const kiv::Status& status) {
  if (!status.ok()) throw std::runtime_error(status.message());
}

void require(bool holds, const char* what) {
  if (!holds) throw std::runtime_error(what);
}

// Both libraries are linked, not merely found.
void checkPlan() {
  qwen35gpu::LayerPlan plan;
  require(plan.set(4, "gpu:1,cpu:3"), "the plan was not taken");
  require(plan.allows("blk.0.attn_q.weight") && !plan.allows("blk.1.attn_q.weight"),
          "the plan allows something else");
}

void continueText(const char* path, const std::string& text) {
  kiv::ZEMLoader loader;
  require(loader.open(path));
  kiv::Tokenizer tokenizer;
  require(tokenizer.load(loader.tokenizer()));
  qwen35::Model model;
  require(qwen35::initLayers(loader, model, kPositions), "a layer is missing");
  require(qwen35::bindModel(loader, model, kPositions), "a tensor is missing");
  require(qwen35::checkWeights(loader, model));

  std::vector<int32_t> ids;
  require(tokenizer.encode(text, ids, loader.tokenizer().addBos));
  std::mt19937 rng(1);
  kiv::SamplerConfig config;
  config.topK = 1;
  const kiv::Sampler sampler(rng, config);
  std::vector<float> x(model.nEmb);
  std::vector<float> logits(model.nVocab);
  const size_t prompt = ids.size();
  for (size_t pos = 0; pos + 1 < prompt + kTokens; ++pos) {
    qwen35::embedRow(model, static_cast<size_t>(ids[pos]), x.data());
    qwen35::forwardToken(model, x.data(), pos, logits.data());
    if (pos + 1 >= prompt) ids.push_back(sampler.sample(logits.data(), logits.size(), ids));
  }
  std::string reply;
  require(tokenizer.decode({ids.begin() + static_cast<ptrdiff_t>(prompt), ids.end()}, reply));
  std::fwrite(reply.data(), 1, reply.size(), stdout);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3) return 2;
  try {
    checkPlan();
    continueText(argv[1], argv[2]);
  } catch (const std::exception& error) {
    std::fprintf(stderr, "libraries: %s\n", error.what());
    return 1;
  }
  return 0;
}
