// SPDX-License-Identifier: Apache-2.0
// A reply as a message of a conversation.
#pragma once

#include <string>

#include "engine/text/chat_message.h"
#include "engine/text/json.h"
#include "engine/text/reply_parser.h"

namespace zemtool {

class ReplyRecord {
 public:
  void add(const zem::text::ReplyEvent& event);

  // What came so far. A call counts from its end on.
  const zem::text::Message& message() const { return message_; }
  // Nothing came.
  bool empty() const;

 private:
  zem::text::Message message_{zem::text::Role::Assistant, {}, {}, {}};
  std::string arguments_;
};

// The text of all its parts.
std::string contentOf(const zem::text::Message& message);

// A message as text::readMessages() reads it.
zem::text::Json jsonOf(const zem::text::Message& message);
// {"name": NAME, "arguments": {...}}
zem::text::Json jsonOf(const zem::text::ToolCall& call);
// On one line. A terminal gets ASCII alone.
std::string lineOf(const zem::text::Json& value);

}  // namespace zemtool
