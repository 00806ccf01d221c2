// SPDX-License-Identifier: Apache-2.0
#include "talk/reply_record.h"

#include <nlohmann/json.hpp>
#include <utility>

#include "console/terminal.h"

namespace zemtool {

using zem::text::ContentPart;
using zem::text::Json;
using zem::text::Message;
using zem::text::ReplyEvent;
using zem::text::Role;
using zem::text::ToolCall;

void ReplyRecord::add(const ReplyEvent& event) {
  switch (event.kind) {
    case ReplyEvent::Kind::Reasoning:
      message_.reasoning = message_.reasoning.value_or("") + event.text;
      break;
    case ReplyEvent::Kind::Content:
      if (message_.content.empty()) message_.content.push_back({ContentPart::Kind::Text, {}});
      message_.content.back().text += event.text;
      break;
    case ReplyEvent::Kind::CallBegin:
      message_.calls.push_back({event.text, Json::object()});
      arguments_.clear();
      break;
    case ReplyEvent::Kind::CallArguments:
      arguments_ += event.text;
      break;
    case ReplyEvent::Kind::CallEnd: {
      Json arguments;
      if (zem::text::parseJson(arguments_, "arguments", arguments).ok()) {
        message_.calls.back().arguments = std::move(arguments);
      }
      break;
    }
  }
}

bool ReplyRecord::empty() const {
  return message_.content.empty() && !message_.reasoning && message_.calls.empty();
}

std::string contentOf(const Message& message) {
  std::string text;
  for (const ContentPart& part : message.content) text += part.text;
  return text;
}

Json jsonOf(const ToolCall& call) { return {{"name", call.name}, {"arguments", call.arguments}}; }

Json jsonOf(const Message& message) {
  Json json = {{"role", zem::text::nameOf(message.role)}, {"content", contentOf(message)}};
  if (message.reasoning) json["reasoning_content"] = *message.reasoning;
  for (const ToolCall& call : message.calls) {
    json["tool_calls"].push_back({{"type", "function"}, {"function", jsonOf(call)}});
  }
  return json;
}

std::string lineOf(const Json& value) {
  return value.dump(-1, ' ', stdoutIsTerminal(), Json::error_handler_t::replace) + "\n";
}

}  // namespace zemtool
