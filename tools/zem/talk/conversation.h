// SPDX-License-Identifier: Apache-2.0
// The messages of a conversation, and what a user does with them.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "engine/text/chat_message.h"
#include "engine/text/json.h"

namespace zemtool {

class Conversation {
 public:
  explicit Conversation(std::string system = {}) : system_(std::move(system)) {}

  const std::string& system() const { return system_; }  // prompt; empty: none
  void setSystem(std::string text) { system_ = std::move(text); }
  bool empty() const { return messages_.empty(); }
  void clear() { messages_.clear(); }  // the system prompt stays

  void ask(const std::string& text);     // a user's message
  void answer(const std::string& text);  // what a tool answers
  void add(zem::text::Message reply);

  // Takes back what stands behind the last message of the user or a tool. False when no such
  // message is there.
  bool takeReplyBack();
  // Takes back the user's last message and all behind it. Nothing when there is none.
  std::optional<std::string> takeQuestionBack();

  // The user's last message. Nothing when there is none.
  std::optional<std::string> lastQuestion() const;
  // The last one, if the conversation ends in a reply.
  const zem::text::Message* lastReply() const;

  // All of them, the system prompt as the first one.
  std::vector<zem::text::Message> messages() const;

  // A chat request: an object with "messages".
  zem::text::Json json() const;
  // Takes the messages from such an object, or from a list of messages. Throws Failure, which
  // begins with `where`; nothing has changed then.
  void take(const zem::text::Json& json, const std::string& where);

 private:
  std::string system_;
  std::vector<zem::text::Message> messages_;
};

}  // namespace zemtool
