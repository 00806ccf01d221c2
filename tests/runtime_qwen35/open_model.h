// SPDX-License-Identifier: Apache-2.0
// A tiny model opened and bound, for tests of the decoder.
#pragma once

#include <gtest/gtest.h>
#include <omp.h>

#include <vector>

#include "kiv/zem_loader.h"
#include "qwen35_model.h"
#include "support/temp_file.h"
#include "support/thorough.h"
#include "support/tiny_model.h"

namespace qwen35 {

using Floats = std::vector<float>;

// The types that matrices of a model are stored in.
inline const std::vector<kiv::DType> kStoredTypes =
    zemtest::fewCases() ? std::vector{kiv::DType::Q4_K}
                        : std::vector{kiv::DType::BF16, kiv::DType::Q8_0, kiv::DType::Q4_K,
                                      kiv::DType::Q5_K, kiv::DType::Q6_K};

// Keeps the file, the loader and the model together; the model points into the
// loader's mapping.
struct OpenModel {
  explicit OpenModel(const zemtest::TinyModel& tiny, size_t kvCap = 32) : file(tiny.build()) {
    const kiv::Status status = loader.open(file.path());
    EXPECT_TRUE(status.ok()) << status.message();
    bound = initLayers(loader, model, kvCap) && bindModel(loader, model, kvCap);
  }

  Floats embedding(size_t token) {
    Floats x(model.nEmb);
    embedRow(model, token, x.data());
    return x;
  }

  // The logits of `token` at position `pos`.
  Floats logits(size_t token, size_t pos) {
    Floats out(model.nVocab);
    forwardToken(model, embedding(token).data(), pos, out.data());
    return out;
  }

  zemtest::TempFile file;
  kiv::ZEMLoader loader;
  Model model;
  bool bound = false;
};

// Restores the number of OpenMP threads.
class ThreadCount {
 public:
  explicit ThreadCount(int count) : before_(omp_get_max_threads()) { omp_set_num_threads(count); }
  ~ThreadCount() { omp_set_num_threads(before_); }
  ThreadCount(const ThreadCount&) = delete;
  ThreadCount& operator=(const ThreadCount&) = delete;

 private:
  int before_;
};

}  // namespace qwen35
