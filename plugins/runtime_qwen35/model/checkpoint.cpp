// SPDX-License-Identifier: Apache-2.0
#include "model/checkpoint.h"

#include <algorithm>

#include "matmul/team.h"

namespace qwen35 {
namespace {

template <typename Vector>
void copyAll(const Vector& from, Vector& to) {
  const size_t n = from.size();
  if (to.size() != n) to = Vector(n);
  forEachShare(n, n >= kTeamElements, [&](size_t /*thread*/, size_t begin, size_t end) {
    std::copy(from.data() + begin, from.data() + end, to.data() + begin);
  });
}

// Zeroes slots [from, L.kvLen) of every key/value head.
void clearSlots(const Model& m, Layer& L, size_t from) {
  const size_t count = (L.kvLen - from) * m.headDim;
  for (size_t g = 0; g < m.nHeadKv; ++g) {
    const size_t first = (g * m.kvCap + from) * m.headDim;
    std::fill_n(L.kCache.data() + first, count, 0.0F);
    std::fill_n(L.vCache.data() + first, count, 0.0F);
  }
}

}  // namespace

Checkpoint::Checkpoint(Model& m) : m_(m), layers_(m.L.size()) {}

void Checkpoint::take(size_t pos) {
  pos_ = pos;
  if (pos == 0) return;
  for (size_t i = 0; i < layers_.size(); ++i) {
    const Layer& L = m_.L[i];
    LayerCopy& copy = layers_[i];
    copy.kvLen = L.kvLen;
    copyAll(L.state, copy.state);
    copyAll(L.convWin, copy.convWin);
  }
}

void Checkpoint::restore() const {
  if (pos_ == 0) return resetModel(m_);
  for (size_t i = 0; i < layers_.size(); ++i) {
    Layer& L = m_.L[i];
    const LayerCopy& copy = layers_[i];
    if (L.kvLen > copy.kvLen) clearSlots(m_, L, copy.kvLen);
    L.kvLen = copy.kvLen;
    copyAll(copy.state, L.state);
    copyAll(copy.convWin, L.convWin);
  }
}

}  // namespace qwen35
