// SPDX-License-Identifier: Apache-2.0
// A model's logits, through the decoder module beside the program.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "decoder/decoder_module.h"

namespace zemtool {

// The first one loads the module. One thread.
class Decoder {
 public:
  // Throws Failure, which names the file, when the module or the model does not open.
  Decoder(const std::string& path, size_t positions);

  size_t vocabulary() const;
  // Feeds the next token of the sequence. The logits are valid until the next step. Throws
  // Failure.
  const std::vector<float>& step(int32_t token);

 private:
  std::unique_ptr<ZemDecoder, ZemDecoderCloseFn> decoder_;
  std::vector<float> logits_;
};

}  // namespace zemtool
