// SPDX-License-Identifier: Apache-2.0
/// \file
/// Chat messages as prompts with turn markers.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace kiv {

/// Who speaks in a message.
enum class ChatRole : uint8_t { System = 0, User = 1, Assistant = 2 };

/// One turn of a conversation.
struct ChatMessage {
  ChatRole role = ChatRole::User;  ///< whose turn it is
  std::string content;             ///< UTF-8, passed on byte by byte
};

/// The prompt that models of the Gemma family are trained on: for every message
///
///     <|turn>ROLE
///     CONTENT
///     <turn|>
///
/// with ROLE system, user or model (an Assistant's messages) and CONTENT without
/// spaces, tabs, line feeds and carriage returns at its ends. A system message is a
/// turn of its own. With `addGenerationPrompt` the text ends in an open turn of the
/// model, for the reply to go on from.
///
/// Never fails; pure, any thread. Markers inside a content are not escaped: strip
/// them from text of strangers. A role outside the enumeration speaks as the user,
/// who has the least to say.
std::string formatGemmaChat(const std::vector<ChatMessage>& messages, bool addGenerationPrompt);

}  // namespace kiv
