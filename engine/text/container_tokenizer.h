// SPDX-License-Identifier: Apache-2.0
/// \file
/// The tokenizer that a container carries from its source.
#pragma once

#include <optional>

#include "engine/text/tokenizer.h"
#include "kiv/status.h"
#include "kiv/zem2_reader.h"

namespace zem::text {

/// Loads the exact tokenizer from the container's `Asset` section, which is a
/// tokenizer.json or the tokenizer's entries of a GGUF file. Added tokens that the
/// container's own vocabulary has beyond a tokenizer.json (its publisher listed them
/// in another file) become special tokens.
///
/// Success without a tokenizer: the container names no source. Fails with
/// InvalidFormat and a message that begins with "tokenizer: " or with what was read,
/// such as "tokenizer.json: ", for a source that is cut short, unknown or not
/// supported. `reader` has to be open; nothing of it is kept.
kiv::Status loadTokenizer(const kiv::ZEM2Reader& reader, std::optional<Tokenizer>& out);

}  // namespace zem::text
