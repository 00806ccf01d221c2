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
  size_t asBytes = 0;        // ordinary ones that are no whole text
  size_t filled = 0;         // empty ones for rows without a token
  size_t merges = 0;         // of the source
  size_t droppedMerges = 0;  // those with a side that is no whole text
};

// Tokens keep their ids and become the text they stand for: bytes decoded, a
// space as U+2581, what is no whole text as a run of "<0xNN>". Rows without a token,
// up to `rows`, get an empty ordinary one. Merges are rewritten in the same way and
// in the same order; those that could never meet whole text are dropped. The end
// of text is "<|endoftext|>" where the vocabulary has it, else as configured.
//
// Empties the source's tokens and merges.
kiv::TokenizerData convertTokenizer(SourceTokenizer& source, uint64_t rows,
                                    TokenizerCounts& counts);

}  // namespace zemtool
