// SPDX-License-Identifier: Apache-2.0
// Whether the tensors of a file can be computed with: type, extents, and that their bytes lie in
// the file.
#pragma once

#include <cstdint>
#include <string>

#include "kiv/status.h"
#include "kiv/tensor.h"
#include "kiv/zem_loader.h"

namespace qwen35 {

using kiv::TensorView;

// Checks one tensor after the other and keeps the first complaint: InvalidFormat, with the
// tensor's name in front. The loader must stay open.
class TensorChecks {
 public:
  explicit TensorChecks(const kiv::ZEMLoader& loader) : loader_(loader) {}

  // A matrix of exactly `rows` rows of `cols` weights.
  void matrix(const TensorView* t, uint64_t cols, uint64_t rows);
  // At least `n` floats.
  void floats(const TensorView* t, uint64_t n);
  // `channels` rows of at least `count` taps.
  void taps(const TensorView* t, uint64_t channels, uint64_t count);
  // A complaint of the caller's.
  void fail(kiv::Status status);

  const kiv::Status& status() const { return status_; }

 private:
  void bytes(const TensorView& t, uint64_t needed);

  const kiv::ZEMLoader& loader_;
  kiv::Status status_;
};

// A failure of this tensor.
kiv::Status badTensor(const TensorView& t, const std::string& what);

// Rows of a view with unchecked extents.
uint64_t statedRows(const TensorView& t);

}  // namespace qwen35
