// SPDX-License-Identifier: Apache-2.0
// POST /api/chat and /api/generate: lines of JSON.
#pragma once

#include <memory>
#include <optional>
#include <string>

#include "engine/chat.h"
#include "server/dialects/completions.h"
#include "server/dialects/reply_writer.h"

namespace zem::server {

struct OllamaCall {
  ChatRequest chat;
  std::optional<CompletionCall> raw;  // in place of the chat: the prompt as it stands
  bool generates = false;             // of /api/generate
  bool stream = true;
  bool loads = false;  // asks for no reply, only that the model is loaded
};

// Throw ApiError for what is wrong, by name.
OllamaCall readOllamaChat(const Json& body);
OllamaCall readOllamaGenerate(const Json& body);

std::unique_ptr<ReplyWriter> makeOllamaWriter(const ReplyFacts& facts, bool generates);
// The answer to a request that only loads the model.
std::string ollamaLoaded(const ReplyFacts& facts, bool generates);

// "2024-02-29T12:00:00Z"
std::string isoTime(int64_t secondsSince1970);

}  // namespace zem::server
