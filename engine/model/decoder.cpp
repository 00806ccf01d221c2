// SPDX-License-Identifier: Apache-2.0
#include "engine/model/decoder.h"

#include <algorithm>
#include <optional>
#include <stdexcept>

#include "kernels/kernel_table.h"
#include "kernels/reference.h"
#include "matmul/integer_products.h"
#include "matmul/matmul.h"
#include "matmul/matrix.h"
#include "matmul/team.h"
#include "qwen35_model.h"

namespace zem {
namespace {

namespace reference = qwen35::reference;
using qwen35::Activations;
using qwen35::Floats;
using qwen35::forEachUnit;
using qwen35::GpuHook;
using qwen35::kNormEps;
using qwen35::kTeamElements;
using qwen35::PackedTokens;

// Rows of `width` floats, whatever they held before.
void shape(Activations& rows, size_t width, size_t tokens) {
  rows.width = width;
  rows.values.resize(width * tokens);
}

void norm(const float* weight, const Activations& x, size_t tokens, Activations& out) {
  shape(out, x.width, tokens);
  forEachUnit(tokens, tokens > 1, [&](size_t t) {
    reference::rmsNorm(x.token(t), weight, out.token(t), x.width, kNormEps);
  });
}

// `tokens` vectors of `cols` floats, `stride` floats apart, as products read them.
class Factors {
 public:
  Factors(Arithmetic arithmetic, const float* x, size_t stride, size_t tokens, size_t cols)
      : arithmetic_(arithmetic), x_(x), stride_(stride), tokens_(tokens), cols_(cols) {}
  Factors(Arithmetic arithmetic, const Activations& x, size_t tokens)
      : Factors(arithmetic, x.values.data(), x.width, tokens, x.width) {}

  // y = W x for each of them: matrixRows floats a token.
  void multiply(const TensorView& W, float* y) {
    if (arithmetic_ == Arithmetic::Fast && qwen35::hasIntegerProducts(W)) {
      if (!rounded_) rounded_.emplace(x_, stride_, tokens_, cols_);
      qwen35::integerMatmul(W, *rounded_, y);
    } else {
      if (!packed_) packed_.emplace(x_, stride_, tokens_, cols_);
      qwen35::matmul(GpuHook{}, W, *packed_, y);
    }
  }
  void multiply(const TensorView& W, Activations& y) {
    shape(y, qwen35::matrixRows(W), tokens_);
    multiply(W, y.values.data());
  }

 private:
  Arithmetic arithmetic_;
  const float* x_;
  size_t stride_;
  size_t tokens_;
  size_t cols_;
  std::optional<PackedTokens> packed_;                 // for floats
  std::optional<qwen35::RoundedActivations> rounded_;  // for integers
};

void add(const Activations& a, Activations& sum) {
  for (size_t i = 0; i < sum.values.size(); ++i) sum.values[i] += a.values[i];
}

void addBias(const FloatWeights& bias, Activations& x, size_t tokens) {
  if (bias.data() == nullptr) return;
  for (size_t t = 0; t < tokens; ++t) {
    for (size_t i = 0; i < x.width; ++i) x.token(t)[i] += bias.data()[i];
  }
}

qwen35::DeltaNetWeights stageWeights(const LinearWeights& w) {
  return {w.decayBias.data(), w.decay.data(), w.taps.data(), w.tapStride, w.norm.data()};
}

}  // namespace

size_t logitRows(LogitsOf which, size_t tokens) {
  switch (which) {
    case LogitsOf::None:
      return 0;
    case LogitsOf::Last:
      return 1;
    case LogitsOf::All:
      break;
  }
  return tokens;
}

Decoder::Decoder(const Weights& weights, CacheType cacheType, Arithmetic arithmetic)
    : weights_(weights),
      arithmetic_(arithmetic),
      linearSizes_{weights.shape().keyHeads, weights.shape().valueHeads, weights.shape().stateSize},
      fullSizes_{weights.shape().heads, weights.shape().kvHeads, weights.shape().headSize},
      pool_(PageLayout(weights.shape(), weights.fullLayers(), cacheType)) {}

SequenceState Decoder::newSequence() { return {linearSizes_, weights_.linearLayers(), pool_}; }

void Decoder::step(std::span<const Chunk> chunks, std::vector<float>& logits) {
  check(chunks);
  if (chunks.empty()) return logits.clear();
  for (const Chunk& chunk : chunks) chunk.sequence->reserve(chunk.tokens.size());
  embed(chunks);
  for (const Chunk& chunk : chunks) chunk.sequence->begin();
  if (only_.empty()) {
    for (const LayerWeights& layer : weights_.layers()) runLayer(chunks, layer);
  }
  for (const size_t index : only_) runLayer(chunks, weights_.layers()[index]);
  computeLogits(chunks, logits);
  for (const Chunk& chunk : chunks) chunk.sequence->advance(chunk.tokens.size());
}

void Decoder::check(std::span<const Chunk> chunks) const {
  for (size_t i = 0; i < chunks.size(); ++i) {
    const Chunk& chunk = chunks[i];
    if (chunk.tokens.empty()) throw std::invalid_argument("a chunk without tokens");
    if (chunk.sequence->broken()) throw std::invalid_argument("a sequence whose last step failed");
    for (const uint32_t id : chunk.tokens) {
      if (id >= vocabulary()) throw std::invalid_argument("a token outside the vocabulary");
    }
    for (size_t j = 0; j < i; ++j) {
      if (chunks[j].sequence == chunk.sequence) throw std::invalid_argument("a sequence twice");
    }
  }
}

// The tokens' embeddings and the rotary angles of their positions.
void Decoder::embed(std::span<const Chunk> chunks) {
  const size_t half = weights_.shape().rotarySize / 2;
  tokens_ = 0;
  for (const Chunk& chunk : chunks) tokens_ += chunk.tokens.size();
  shape(x_, weights_.shape().width, tokens_);
  cosines_.resize(tokens_ * half);
  sines_.resize(tokens_ * half);
  size_t row = 0;
  for (const Chunk& chunk : chunks) {
    for (size_t t = 0; t < chunk.tokens.size(); ++t, ++row) {
      qwen35::rowToF32(&weights_.embedding(), chunk.tokens[t], x_.width, x_.token(row));
      reference::ropeAngles(2 * half, chunk.sequence->length() + t, &cosines_[row * half],
                            &sines_[row * half]);
    }
  }
}

void Decoder::runLayer(std::span<const Chunk> chunks, const LayerWeights& layer) {
  norm(layer.attentionNorm.data(), x_, tokens_, xn_);
  if (layer.isFull) {
    fullAttention(chunks, layer);
  } else {
    linearAttention(chunks, layer);
  }
  add(part_, x_);
  norm(layer.feedForwardNorm.data(), x_, tokens_, xn_);
  feedForward(layer);
  add(part_, x_);
}

void Decoder::linearAttention(std::span<const Chunk> chunks, const LayerWeights& layer) {
  const LinearWeights& w = layer.linear;
  const qwen35::DeltaNetWeights stages = stageWeights(w);
  std::vector<qwen35::StateRun> runs;
  size_t first = 0;
  for (const Chunk& chunk : chunks) {
    RecurrentState& state = chunk.sequence->recurrent();
    runs.push_back({state.matrices(layer.kindIndex), state.window(layer.kindIndex), first,
                    chunk.tokens.size()});
    first += chunk.tokens.size();
  }

  Factors X(arithmetic_, xn_, tokens_);
  X.multiply(*w.mixed, mixed_);
  X.multiply(*w.gate, gate_);
  X.multiply(*w.beta, beta_);
  X.multiply(*w.alpha, decay_);
  qwen35::writeStrengths(beta_, tokens_);
  qwen35::logDecays(stages, decay_, tokens_);
  qwen35::convolve(linearSizes_, stages, runs, mixed_);
  qwen35::normaliseKeys(linearSizes_, mixed_, tokens_);
  qwen35::recur(linearSizes_, runs, mixed_, beta_, decay_);
  qwen35::gateOutputs(linearSizes_, stages, mixed_, gate_, tokens_);
  Factors(arithmetic_, mixed_.token(0) + linearSizes_.keyChannels(), mixed_.width, tokens_,
          linearSizes_.valueChannels())
      .multiply(*w.out, part_);
}

void Decoder::fullAttention(std::span<const Chunk> chunks, const LayerWeights& layer) {
  const FullWeights& w = layer.full;
  Factors X(arithmetic_, xn_, tokens_);
  X.multiply(*w.query, mixed_);
  X.multiply(*w.key, key_);
  X.multiply(*w.value, value_);
  addBias(w.queryBias, mixed_, tokens_);
  addBias(w.keyBias, key_, tokens_);
  addBias(w.valueBias, value_, tokens_);
  prepareQueries(layer);
  storeKeysAndValues(chunks, layer);

  shape(out_, fullSizes_.heads * fullSizes_.headSize, tokens_);
  size_t first = 0;
  for (const Chunk& chunk : chunks) {
    const AttentionRun run{chunk.sequence->pages(), chunk.sequence->length(), first,
                           chunk.tokens.size()};
    pagedAttention(fullSizes_, pool_.layout(), layer.kindIndex, run, mixed_, out_, scratch_);
    first += chunk.tokens.size();
  }
  Factors(arithmetic_, out_, tokens_).multiply(*w.out, part_);
}

// q = rope(rmsNorm(q)), head by head, in place; the gate behind each head stays as it is.
void Decoder::prepareQueries(const LayerWeights& layer) {
  const size_t heads = fullSizes_.heads;
  const size_t size = fullSizes_.headSize;
  const size_t rotary = weights_.shape().rotarySize;
  const size_t units = tokens_ * heads;
  forEachUnit(units, units * size >= kTeamElements, [&](size_t unit) {
    const size_t t = unit / heads;
    float* head = mixed_.token(t) + unit % heads * 2 * size;
    reference::rmsNorm(head, layer.full.queryNorm.data(), head, size, kNormEps);
    reference::ropeRotate(head, rotary, &cosines_[t * (rotary / 2)], &sines_[t * (rotary / 2)]);
  });
}

// Puts rope(rmsNorm(k)) and v into the pages.
void Decoder::storeKeysAndValues(std::span<const Chunk> chunks, const LayerWeights& layer) {
  const size_t heads = fullSizes_.kvHeads;
  const size_t size = fullSizes_.headSize;
  const size_t rotary = weights_.shape().rotarySize;
  size_t first = 0;
  for (const Chunk& chunk : chunks) {
    const size_t units = chunk.tokens.size() * heads;
    forEachUnit(units, units * size >= kTeamElements, [&](size_t unit) {
      const size_t t = first + unit / heads;
      const size_t head = unit % heads;
      float* key = key_.token(t) + head * size;
      reference::rmsNorm(key, layer.full.keyNorm.data(), key, size, kNormEps);
      reference::ropeRotate(key, rotary, &cosines_[t * (rotary / 2)], &sines_[t * (rotary / 2)]);
      const size_t position = chunk.sequence->length() + unit / heads;
      chunk.sequence->page(position / kPagePositions)
          .store(pool_.layout(), layer.kindIndex, head, position % kPagePositions, key,
                 value_.token(t) + head * size);
    });
    first += chunk.tokens.size();
  }
}

// down(silu(gate(x)) * up(x)).
void Decoder::feedForward(const LayerWeights& layer) {
  Factors X(arithmetic_, xn_, tokens_);
  X.multiply(*layer.feedForwardGate, gate_);
  X.multiply(*layer.feedForwardUp, mixed_);
  Floats& h = gate_.values;
  qwen35::forEachShare(h.size(), h.size() >= kTeamElements, [&](size_t, size_t begin, size_t end) {
    qwen35::kernelTable().siluMul(&h[begin], &mixed_.values[begin], &h[begin], end - begin);
  });
  Factors(arithmetic_, gate_, tokens_).multiply(*layer.feedForwardDown, part_);
}

void Decoder::computeLogits(std::span<const Chunk> chunks, std::vector<float>& logits) {
  size_t rows = 0;
  for (const Chunk& chunk : chunks) rows += logitRows(chunk.logits, chunk.tokens.size());
  logits.resize(rows * vocabulary());
  if (rows == 0) return;
  shape(part_, x_.width, rows);
  size_t first = 0;
  size_t row = 0;
  for (const Chunk& chunk : chunks) {
    const size_t end = first + chunk.tokens.size();
    for (size_t t = end - logitRows(chunk.logits, chunk.tokens.size()); t < end; ++t, ++row) {
      std::copy_n(x_.token(t), x_.width, part_.token(row));
    }
    first = end;
  }
  norm(weights_.outputNorm(), part_, rows, xn_);
  Factors(arithmetic_, xn_, rows).multiply(weights_.head(), logits.data());
}

}  // namespace zem
