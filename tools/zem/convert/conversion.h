// SPDX-License-Identifier: Apache-2.0
// A whole conversion, from a published model to a container.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "convert/convert_tokenizer.h"
#include "convert/source.h"
#include "convert/tensor_plan.h"
#include "convert/write_weights.h"

namespace zemtool {

struct ConversionOptions {
  std::string input;  // a checkpoint's folder or a GGUF file
  std::string output;
  WeightMix mix = WeightMix::Q4_K_M;
  bool recode = false;  // encode GGUF blocks that could be copied
  bool force = false;   // replace an output that exists
  bool verify = true;   // decode what was encoded, and measure the error
  size_t threads = 1;
  std::string generator;  // for the metadata
  // Called before the first byte with the total, then as bytes are written. May throw.
  std::function<void(uint64_t done, uint64_t total)> progress;
};

struct ConversionReport {
  std::string format;
  std::vector<std::string> files;
  kiv::Architecture architecture;
  LeftOut leftOut;
  std::vector<Fallback> fallbacks;
  TokenizerCounts tokenizer;
  WeightReport weights;
  double seconds = 0;
};

// Throws Failure. The output appears under its name only when it is whole, and replaces an
// older file then.
ConversionReport convertModel(const ConversionOptions& options);

}  // namespace zemtool
