// SPDX-License-Identifier: Apache-2.0
#include "kiv/chat_template.h"

#include <string_view>

namespace kiv {
namespace {

// The bar stands at different ends of the two markers; both are spelled right.
constexpr std::string_view kTurnBegin = "<|turn>";
constexpr std::string_view kTurnEnd = "<turn|>";
constexpr std::string_view kModelRole = "model";

std::string_view roleWord(ChatRole role) {
  switch (role) {
    case ChatRole::System:
      return "system";
    case ChatRole::Assistant:
      return kModelRole;
    case ChatRole::User:
      break;
  }
  return "user";
}

std::string_view trimmed(std::string_view text) {
  constexpr std::string_view kBlanks = " \t\n\r";
  const size_t first = text.find_first_not_of(kBlanks);
  if (first == std::string_view::npos) return {};
  return text.substr(first, text.find_last_not_of(kBlanks) - first + 1);
}

}  // namespace

std::string formatGemmaChat(const std::vector<ChatMessage>& messages, bool addGenerationPrompt) {
  std::string prompt;
  for (const ChatMessage& message : messages) {
    prompt.append(kTurnBegin).append(roleWord(message.role)).append("\n");
    prompt.append(trimmed(message.content)).append("\n").append(kTurnEnd).append("\n");
  }
  if (addGenerationPrompt) prompt.append(kTurnBegin).append(kModelRole).append("\n");
  return prompt;
}

}  // namespace kiv
