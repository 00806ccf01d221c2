// SPDX-License-Identifier: Apache-2.0
// POST /v1/messages and /v1/messages/count_tokens.
#pragma once

#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "engine/chat.h"
#include "server/dialects/reply_writer.h"

namespace zem::server {

// The member with the reasoning effort.
inline constexpr std::string_view kAnthropicEffort = "output_config.effort";

struct AnthropicCall {
  ChatRequest chat;
  bool stream = false;
};

// Throws ApiError for what is wrong, by name. `counts`: a request that only counts tokens needs
// no max_tokens.
AnthropicCall readAnthropic(const Json& body, bool counts);

std::unique_ptr<ReplyWriter> makeAnthropicWriter(const ReplyFacts& facts,
                                                 std::vector<std::string> stopTexts);

}  // namespace zem::server
