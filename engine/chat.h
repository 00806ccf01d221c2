// SPDX-License-Identifier: Apache-2.0
/// \file
/// Chat requests: messages in, reasoning, content and tool calls out.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "engine/request.h"
#include "engine/text/chat_message.h"
#include "engine/text/chat_renderer.h"
#include "engine/text/reply_parser.h"
#include "kiv/status.h"

namespace zem {

class Engine;

/// Whether a reply calls tools.
enum class ToolChoice : uint8_t {
  Auto,     ///< as the model likes
  None,     ///< never: the model does not see the tools
  Required  ///< always
};

/// The next reply of a conversation.
struct ChatRequest {
  std::vector<text::Message> messages;  ///< of the conversation; text::readMessages() reads JSON
  std::vector<text::Json> tools;        ///< that may be called; text::readTools() reads JSON
  text::RenderOptions format;           ///< of the prompt, thinking among it
  ToolChoice toolChoice = ToolChoice::Auto;  ///< whether tools are called
  std::string onlyTool;      ///< the only function that may be called, with Required; empty: any
  bool severalCalls = true;  ///< one reply may call several times, with Required
  std::optional<text::Json> schema;        ///< of the content, which is JSON then; `true`: any JSON
  SamplingSettings sampling;               ///< in place of the model's defaults
  std::vector<std::string> stopTexts;      ///< end the reply
  uint64_t maxTokens = kNoTokenLimit;      ///< of the reply, thinking included
  std::optional<uint64_t> thinkingBudget;  ///< tokens of thinking
  std::optional<size_t> logProbabilities;  ///< see Request
};

/// A chat request as tokens.
struct PreparedChat {
  Request request;                ///< for Engine::submit()
  bool thinking = false;          ///< the reply begins with thinking
  text::ReplyOptions reply;       ///< how the reply is read
  text::ArgumentKinds arguments;  ///< of the tools
};

/// Renders the conversation in the model's chat format and makes a request of it. States are kept
/// behind the system message, before the last question and behind it, where other conversations
/// branch off.
///
/// Fails with Unsupported for a model without a known chat format and for images and videos;
/// with InvalidFormat for what text::renderChat() and text::Constraint refuse, and for tools
/// that are missing or that stand beside a schema. Any thread; takes no time of the engine's.
kiv::Status prepareChat(const Engine& engine, const ChatRequest& chat, PreparedChat& out);

/// Hears of a reply to a chat request, taken apart. The rules of Listener hold.
class ChatListener : public Listener {
 public:
  /// For the reply to this request.
  explicit ChatListener(const PreparedChat& chat) : parser_(chat.reply, chat.arguments) {}

  void onToken(const Token& token) final;
  void onEnd(const End& end) final;

  size_t reasoningTokens() const { return reasoningTokens_; }  ///< so far
  bool called() const { return called_; }                      ///< a call of a tool has begun

 protected:
  /// The next token, and what is certain with it: often one event, or none.
  virtual void onReply(const Token& token, const std::vector<text::ReplyEvent>& events) = 0;
  /// The last call, with what was held back.
  virtual void onReplyEnd(const End& end, const std::vector<text::ReplyEvent>& events) = 0;

 private:
  void read();

  text::ReplyParser parser_;
  std::vector<text::ReplyEvent> events_;
  size_t reasoningTokens_ = 0;
  bool called_ = false;
};

}  // namespace zem
