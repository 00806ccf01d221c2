// SPDX-License-Identifier: Apache-2.0
// Going back to the state of a model before a run of tokens.
#pragma once

#include <cstddef>
#include <vector>

#include "qwen35_model.h"
#include "qwen35_zeroed_floats.h"

namespace qwen35 {

// The state of a model before some tokens: the recurrent states and convolution
// windows, and how full the caches are. 53 MB for the supported architecture;
// the model must outlive it.
class Checkpoint {
 public:
  explicit Checkpoint(Model& m);

  // Remembers the state after `pos` tokens since resetModel; for 0 there is nothing to
  // copy. Reuses the memory of the last call.
  void take(size_t pos);
  // Brings back the state of the last take(). Cache slots that were filled since are
  // zero again.
  void restore() const;

 private:
  struct LayerCopy {
    DenseZeroedFloats state;
    ZeroedFloats convWin;
    size_t kvLen = 0;
  };

  Model& m_;
  size_t pos_ = 0;
  std::vector<LayerCopy> layers_;
};

}  // namespace qwen35
