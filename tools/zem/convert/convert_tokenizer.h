// SPDX-License-Identifier: Apache-2.0
// From a published byte-level vocabulary to a container's, which holds text.
#pragma once

#include <cstddef>
#include <cstdint>

#include "convert/source_tokenizer.h"
#include "kiv/tokenizer.h"

namespace zemtool {

struct TokenizerCounts {
  size_t tokens = 0;         // of the source
  size_t added = 0;          // matched whole
  size_t asBytes = 0;        // ordinary ones that are not whole characters
  size_t filled = 0;         // empty ones for rows without a token
  size_t merges = 0;         // of the source
  size_t droppedMerges = 0;  // those with a side that is not whole characters
};

// Tokens keep their ids and become the text that they stand for. Bytes are decoded, and a
// space becomes U+2581. A token that is not whole characters becomes a run of "<0xNN>". Rows
// without a token, up to `rows`, get an empty ordinary one. Merges are rewritten likewise and
// keep their order; a merge is dropped when one of its sides is not whole characters. The end
// of text is "<|endoftext|>" when the vocabulary has it, else the configured token.
//
// Empties the source's tokens and merges.
kiv::TokenizerData convertTokenizer(SourceTokenizer& source, uint64_t rows,
                                    TokenizerCounts& counts);

}  // namespace zemtool
