#include "qwen35_checkpoint.h"

#include <algorithm>

#include "qwen35_team.h"

namespace qwen35 {
namespace {

void copyFloats(const float* from, size_t n, float* to) {
  forEachShare(n, n >= kTeamElements, [=](size_t /*thread*/, size_t begin, size_t end) {
    std::copy(from + begin, from + end, to + begin);
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
    copy.state.resize(L.state.size());
    copy.convWin.resize(L.convWin.size());
    copyFloats(L.state.data(), L.state.size(), copy.state.data());
    copyFloats(L.convWin.data(), L.convWin.size(), copy.convWin.data());
  }
}

void Checkpoint::restore() const {
  if (pos_ == 0) return resetModel(m_);
  for (size_t i = 0; i < layers_.size(); ++i) {
    Layer& L = m_.L[i];
    const LayerCopy& copy = layers_[i];
    if (L.kvLen > copy.kvLen) clearSlots(m_, L, copy.kvLen);
    L.kvLen = copy.kvLen;
    copyFloats(copy.state.data(), copy.state.size(), L.state.data());
    copyFloats(copy.convWin.data(), copy.convWin.size(), L.convWin.data());
  }
}

}  // namespace qwen35
