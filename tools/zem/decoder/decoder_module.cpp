// SPDX-License-Identifier: Apache-2.0
#include "decoder/decoder_module.h"

#include <algorithm>
#include <cstring>
#include <memory>
#include <new>
#include <string>
#include <vector>

#include "compat/module_export.h"
#include "kiv/zem_loader.h"
#include "qwen35_check.h"
#include "qwen35_model.h"

#define ZEM_DECODER_EXPORT extern "C" ZEM_MODULE_EXPORT

struct ZemDecoder {
  kiv::ZEMLoader loader;
  qwen35::Model model;
  std::vector<float> embedding;
  size_t position = 0;
};

namespace {

std::string openModel(ZemDecoder& decoder, const char* path, size_t positions) {
  if (const kiv::Status s = decoder.loader.open(path); !s.ok()) return s.message();
  std::string architecture;
  if (!decoder.loader.getMetaStr("general.architecture", architecture) ||
      architecture != "qwen35") {
    return "not a model of the architecture qwen35";
  }
  if (!qwen35::initLayers(decoder.loader, decoder.model, positions) ||
      !qwen35::bindModel(decoder.loader, decoder.model, positions)) {
    return "a tensor is missing";
  }
  if (const kiv::Status s = qwen35::checkWeights(decoder.loader, decoder.model); !s.ok()) {
    return s.message();
  }
  decoder.embedding.resize(decoder.model.nEmb);
  return {};
}

void copyText(const std::string& text, char* out, size_t outSize) {
  if (out == nullptr || outSize == 0) return;
  const size_t n = std::min(text.size(), outSize - 1);
  std::memcpy(out, text.data(), n);
  out[n] = '\0';
}

}  // namespace

ZEM_DECODER_EXPORT ZemDecoder* zem_decoder_open(const char* path, size_t positions, char* error,
                                                size_t errorSize) {
  try {
    auto decoder = std::make_unique<ZemDecoder>();
    const std::string problem = openModel(*decoder, path, positions);
    if (problem.empty()) return decoder.release();
    copyText(problem, error, errorSize);
  } catch (const std::bad_alloc&) {
    copyText("out of memory", error, errorSize);
  }
  return nullptr;
}

ZEM_DECODER_EXPORT size_t zem_decoder_vocabulary(const ZemDecoder* decoder) {
  return decoder->model.nVocab;
}

ZEM_DECODER_EXPORT int zem_decoder_step(ZemDecoder* decoder, int32_t token, float* logits) {
  qwen35::Model& model = decoder->model;
  const bool known = token >= 0 && static_cast<size_t>(token) < model.nVocab;
  if (!known || decoder->position >= model.kvCap) return 1;
  try {
    qwen35::embedRow(model, static_cast<size_t>(token), decoder->embedding.data());
    qwen35::forwardToken(model, decoder->embedding.data(), decoder->position, logits);
  } catch (const std::bad_alloc&) {
    return 1;
  }
  ++decoder->position;
  return 0;
}

ZEM_DECODER_EXPORT void zem_decoder_close(ZemDecoder* decoder) { delete decoder; }
