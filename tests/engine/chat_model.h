// SPDX-License-Identifier: Apache-2.0
// A model that takes chats: a tokenizer of its source, and random weights.
#pragma once

#include <cstdint>
#include <string>

#include "support/temp_file.h"

namespace zemtest {

// Ids of the vocabulary: byte b has the id b, then these.
enum ChatToken : uint32_t {
  kEndOfText = 256,
  kTurnBegin,
  kTurnEnd,
  kThinkBegin,
  kThinkEnd,
  kCallBegin,
  kCallEnd,
  kChatVocabulary
};

// Writes such a model with smallArchitecture(). The container has `chatTemplate` and names
// `chatFormat`, where they are not empty.
void writeChatModel(const TempFile& file, const std::string& chatTemplate = {},
                    const std::string& chatFormat = {});

}  // namespace zemtest
