// SPDX-License-Identifier: Apache-2.0
// The weights of a model: views into the mapped container, checked once, then shared by all
// threads and conversations.
#pragma once

#include <cstddef>
#include <memory>
#include <string>
#include <vector>

#include "engine/model/shape.h"
#include "kiv/zem_loader.h"

namespace zem {

using kiv::TensorView;

// The floats of an F32 tensor: in place where the file aligns them, else a copy.
class FloatWeights {
 public:
  FloatWeights() = default;
  FloatWeights(const TensorView& tensor, size_t count);

  const float* data() const { return copy_.empty() ? inPlace_ : copy_.data(); }

 private:
  std::vector<float> copy_;  // before what may point into it
  const float* inPlace_ = nullptr;
};

// Matrices of linear attention, and the vectors of its stages.
struct LinearWeights {
  const TensorView* mixed = nullptr;  // queries, keys, values
  const TensorView* gate = nullptr;
  const TensorView* beta = nullptr;
  const TensorView* alpha = nullptr;
  const TensorView* out = nullptr;
  FloatWeights decayBias;
  FloatWeights decay;
  FloatWeights taps;
  size_t tapStride = 0;
  FloatWeights norm;
};

// Of full attention. Biases have no data where the model has none.
struct FullWeights {
  const TensorView* query = nullptr;  // per head a query, then its gate
  const TensorView* key = nullptr;
  const TensorView* value = nullptr;
  const TensorView* out = nullptr;
  FloatWeights queryNorm;
  FloatWeights keyNorm;
  FloatWeights queryBias;
  FloatWeights keyBias;
  FloatWeights valueBias;
};

struct LayerWeights {
  bool isFull = false;
  size_t kindIndex = 0;  // among the layers of its kind
  FloatWeights attentionNorm;
  FloatWeights feedForwardNorm;
  const TensorView* feedForwardGate = nullptr;
  const TensorView* feedForwardUp = nullptr;
  const TensorView* feedForwardDown = nullptr;
  LinearWeights linear;  // unless isFull
  FullWeights full;      // if isFull
};

class Weights {
 public:
  // Opens and checks the container at `path`. Failures are those of ZEMLoader, readShape and
  // checkTensors, and a model of another architecture: InvalidFormat. Reads no weights.
  static kiv::Status open(const std::string& path, std::unique_ptr<Weights>& out);

  const Shape& shape() const { return shape_; }
  const kiv::ZEMLoader& loader() const { return loader_; }
  const std::vector<LayerWeights>& layers() const { return layers_; }
  size_t fullLayers() const { return fullLayers_; }
  size_t linearLayers() const { return layers_.size() - fullLayers_; }

  const TensorView& embedding() const { return *embedding_; }
  const TensorView& head() const { return *head_; }  // the embedding where they are tied
  const float* outputNorm() const { return outputNorm_.data(); }

 private:
  Weights() = default;
  void bind();
  LayerWeights bindLayer(uint32_t layer);
  LinearWeights bindLinear(uint32_t layer) const;
  FullWeights bindFull(uint32_t layer) const;
  const TensorView* find(kiv::TensorRole role, uint32_t layer = 0) const;
  FloatWeights floats(kiv::TensorRole role, uint32_t layer, size_t count) const;

  kiv::ZEMLoader loader_;
  Shape shape_;
  std::vector<LayerWeights> layers_;
  size_t fullLayers_ = 0;
  const TensorView* embedding_ = nullptr;
  const TensorView* head_ = nullptr;
  FloatWeights outputNorm_;
};

}  // namespace zem
