// SPDX-License-Identifier: Apache-2.0
/// \file
/// Requests as JSON text, with the members that programs of the field use.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "engine/chat.h"
#include "kiv/status.h"

namespace zem {

/// What a request for any reply sets, whatever it goes on from.
struct ReplySettings {
  SamplingSettings sampling;               ///< what is set of the sampling
  std::vector<std::string> stopTexts;      ///< end the reply
  uint64_t maxTokens = kNoTokenLimit;      ///< of the reply
  std::optional<size_t> logProbabilities;  ///< as Request::logProbabilities
};

/// Reads an object with these members, each of which may be missing or null:
///
/// - `temperature`, `top_p`, `min_p`, `repetition_penalty`, `presence_penalty`,
///   `frequency_penalty`: numbers;
/// - `top_k`, `penalty_window` (tokens), `seed`, `max_tokens` or `max_completion_tokens`: whole
///   numbers from 0;
/// - `logit_bias`: an object from ids, as texts, to numbers;
/// - `stop`: a text or a list of texts;
/// - `logprobs`: true, or how many of the likeliest tokens; `top_logprobs`: how many, 0 to 20.
///
/// `n` has to be 1. `model`, `stream`, `stream_options`, `user`, `metadata`, `store` and
/// `service_tier` are ignored. Fails with InvalidFormat and "MEMBER: found ..., expected ..." for
/// what is wrong and for any other member. Whether the sampling's values are in range is
/// Engine::submit()'s to say. Pure, any thread.
kiv::Status readReplySettings(std::string_view json, ReplySettings& out);

/// Reads the same members and
///
/// - `messages`: as text::readMessages() takes them; has to be there;
/// - `tools`: as text::readTools() takes them;
/// - `tool_choice`: "auto", "none", "required" or {"type": "function", "function": {"name": TEXT}};
/// - `parallel_tool_calls`, `enable_thinking`, `preserve_thinking`, `add_vision_id`,
///   `merge_system`, `omit_empty_thinking`: true or false;
/// - `reasoning_effort`: a text;
/// - `thinking_budget`: tokens, or -1 for no limit;
/// - `response_format`: {"type": "text"}, {"type": "json_object"}, or {"type": "json_schema",
///   "json_schema": {"schema": SCHEMA}}.
///
/// Fails like readReplySettings(). Pure, any thread.
kiv::Status readChatRequest(std::string_view json, ChatRequest& out);

}  // namespace zem
