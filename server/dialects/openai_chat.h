// SPDX-License-Identifier: Apache-2.0
// POST /v1/chat/completions.
#pragma once

#include <memory>
#include <string>

#include "engine/chat.h"
#include "server/dialects/fields.h"
#include "server/dialects/reply_writer.h"

namespace zem::server {

inline constexpr size_t kMostChoices = 8;            // "n"
inline constexpr size_t kMostLogProbabilities = 20;  // "top_logprobs"

// What a request wants beyond the reply itself.
struct ReplyForm {
  bool stream = false;
  size_t choices = 1;
  bool streamsUsage = false;
  bool progress = false;          // of the prompt
  bool logProbabilities = false;  // of the content's tokens
  bool echo = false;              // completions: the prompt stands in front of the reply
};

struct ChatCall {
  ChatRequest chat;
  ReplyForm form;
};

// Throws ApiError for what is wrong, by name.
ChatCall readOpenAiChat(const Json& body);

std::unique_ptr<ReplyWriter> makeOpenAiChatWriter(const ReplyFacts& facts, const ReplyForm& form);

// Parts that other dialects use.
// "tools": their type has to be "function". A function has a name.
std::vector<Json> readFunctionTools(const Json* tools, const std::string& where);
// "tool_choice": none, auto, required, or a function.
void readToolChoice(const Json* choice, ChatRequest& chat);
// {"enable_thinking": ..., "preserve_thinking": ..., "reasoning_effort": ...}
void readTemplateSettings(const Fields& settings, text::RenderOptions& format);
// Messages after the rules of every dialect: text alone, and no answer to go on with.
void checkMessages(const std::vector<text::Message>& messages);
// {"content": [...]}
Json logProbabilitiesJson(std::span<const ContentToken> tokens);
Json usageJson(std::span<const ReplyEnd> ends, size_t sharing = 0);  // see sumOf()
// stop, length or tool_calls.
std::string_view finishReason(const ReplyEnd& end);

}  // namespace zem::server
