// SPDX-License-Identifier: Apache-2.0
/// \file
/// Chat requests as JSON text, each answered with its prompt.
#pragma once

#include <string>
#include <string_view>

#include "engine/text/chat_format.h"
#include "engine/text/chat_renderer.h"
#include "kiv/status.h"

namespace zem::text {

/// The prompt of one request, a JSON object:
///
/// - `messages`, `tools`: as for readMessages() and readTools();
/// - `add_generation_prompt` (true unless it says false), `enable_thinking`,
///   `preserve_thinking`, `add_vision_id`: true, false or null;
/// - `reasoning_effort`: text or null;
/// - `merge_system`, `omit_empty_thinking`: the members of RenderOptions;
/// - `chat_template`: the name of a ChatFormat, in place of `format`.
///
/// Other members are ignored. Fails with the member and what was found there, and like
/// renderChat(). `out` is empty then. Pure, any thread.
kiv::Status renderRequest(std::string_view request, const ChatFormat& format, RenderedChat& out);

/// The prompt of one request as a JSON string, or {"error": "what is wrong"}; one line
/// without its end. Never fails otherwise; pure, any thread.
std::string renderRequest(std::string_view line, const ChatFormat& format);

}  // namespace zem::text
