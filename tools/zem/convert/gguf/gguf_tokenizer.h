// SPDX-License-Identifier: Apache-2.0
// The tokenizer in a GGUF file's metadata.
#pragma once

#include <cstdint>

#include "convert/source_tokenizer.h"
#include "kiv/container/gguf.h"

namespace zemtool {

// The tokenizer of a model with an embedding of `rows` rows. The asset is a GGUF
// file of its own: the entries "tokenizer.*" as they are, and no tensors. Throws
// Failure, "FILE: what is wrong".
SourceTokenizer readGgufTokenizer(const kiv::GgufFile& gguf, uint64_t rows);

}  // namespace zemtool
