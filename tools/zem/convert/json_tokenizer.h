// SPDX-License-Identifier: Apache-2.0
// tokenizer.json and tokenizer_config.json of a published checkpoint.
#pragma once

#include <cstdint>
#include <string>

#include "convert/source_tokenizer.h"

namespace zemtool {

// The tokenizer of the checkpoint in `folder`, with an embedding of `rows` rows.
// The chat template is the one of tokenizer_config.json, chat_template.jinja or
// chat_template.json, in this order. Throws Failure, "FILE: what is wrong".
SourceTokenizer readJsonTokenizer(const std::string& folder, uint64_t rows);

}  // namespace zemtool
