// SPDX-License-Identifier: Apache-2.0
// Writes the weights of a plan into a container, on several threads.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "convert/tensor_plan.h"
#include "kiv/zem2_writer.h"

namespace zemtool {

// Statistics of some rows of a tensor. Those of several stretches of rows can be added.
struct RowStats {
  double squaredError = 0;  // of what is stored, against the source
  double squaredNorm = 0;   // of the source
  double sum = 0;           // of what is stored; of vectors only
  float largest = 0;        // likewise

  void add(const RowStats& other);
};

// Statistics of all tensors of a type.
struct TypeReport {
  uint64_t tensors = 0;
  uint64_t copied = 0;
  uint64_t elements = 0;
  uint64_t bytes = 0;
  // Of the tensors that were encoded. An error is the root of the mean square, relative to that
  // of the weights.
  double squaredError = 0;
  double squaredNorm = 0;
  double worstError = 0;
  std::string worstTensor;

  double relativeError() const;
};

struct WeightReport {
  std::map<std::string, TypeReport> types;  // by the type's name
  uint64_t bytesRead = 0;
  uint64_t bytesWritten = 0;
  std::vector<std::string> warnings;
};

// Gives the stored bytes of rows `first` to `first + count - 1`. Throws Failure, which names
// the tensor, when a weight is not finite or a scale is too large for its type. The statistics
// have errors only with `measure`. Any thread.
void encodeRows(const PlannedTensor& tensor, uint64_t first, uint64_t count, bool measure,
                std::vector<uint8_t>& out, RowStats& stats);

struct WriteOptions {
  size_t threads = 1;
  bool measure = true;
  std::function<void(uint64_t done)> progress;  // bytes written; may throw to stop
};

// Streams every tensor of the plan into `writer`, which has begun. Gives the source's pages
// back as soon as they are used, so that memory stays bounded.
WeightReport writeWeights(const ConversionPlan& plan, kiv::ZEM2Writer& writer,
                          const WriteOptions& options);

}  // namespace zemtool
