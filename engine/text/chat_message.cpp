// SPDX-License-Identifier: Apache-2.0
#include "engine/text/chat_message.h"

#include <array>
#include <utility>

#include "engine/text/chat/python_text.h"

namespace zem::text {
namespace {

using kiv::Status;

constexpr std::array<std::string_view, 5> kRoles = {"system", "developer", "user", "assistant",
                                                    "tool"};

Status wrongValue(const std::string& where, std::string_view expected, std::string_view found) {
  return {kiv::StatusCode::InvalidFormat,
          where + ": found " + std::string(found) + ", expected " + std::string(expected)};
}

Status wrongValue(const std::string& where, std::string_view expected, const Json* found) {
  return wrongValue(where, expected, found == nullptr ? "nothing" : kindOf(*found));
}

std::string element(const std::string& list, size_t index) {
  return list + "[" + std::to_string(index) + "]";
}

Status readRole(const Json& message, const std::string& where, Role& out) {
  constexpr std::string_view kExpected = "system, developer, user, assistant or tool";
  const Json* role = memberOf(message, "role");
  if (role == nullptr || !role->is_string()) return wrongValue(where + ".role", kExpected, role);
  const std::string_view name = role->get_ref<const std::string&>();
  for (size_t i = 0; i < kRoles.size(); ++i) {
    if (name != kRoles[i]) continue;
    out = static_cast<Role>(i);
    return {};
  }
  return wrongValue(where + ".role", kExpected, quotedStart(name));
}

Status readPart(const Json& part, const std::string& where, ContentPart& out) {
  constexpr std::string_view kExpected = "an object with \"text\", or an image or a video";
  if (!part.is_object()) return wrongValue(where, kExpected, &part);
  const Json* type = memberOf(part, "type");
  const auto is = [&](std::string_view name) { return part.contains(name); };
  const auto isOfType = [&](std::string_view name) { return type != nullptr && *type == name; };
  if (is("image") || is("image_url") || isOfType("image")) {
    out.kind = ContentPart::Kind::Image;
    return {};
  }
  if (is("video") || isOfType("video")) {
    out.kind = ContentPart::Kind::Video;
    return {};
  }
  if (!is("text")) return wrongValue(where, kExpected, "an object without any of them");
  const Json& text = part.at("text");
  if (!text.is_string()) return wrongValue(where + ".text", "text", &text);
  out.text = text.get<std::string>();
  return {};
}

Status readContent(const Json& message, const std::string& where, std::vector<ContentPart>& out) {
  const Json* content = memberOf(message, "content");
  if (content == nullptr) return {};
  if (content->is_string()) {
    out.push_back({ContentPart::Kind::Text, content->get<std::string>()});
    return {};
  }
  if (!content->is_array()) return wrongValue(where, "text, a list of parts or null", content);
  out.resize(content->size());
  for (size_t i = 0; i < out.size(); ++i) {
    if (Status status = readPart((*content)[i], element(where, i), out[i]); !status.ok()) {
      return status;
    }
  }
  return {};
}

Status readArguments(const Json& call, const std::string& where, Json& out) {
  const Json* arguments = memberOf(call, "arguments");
  if (arguments == nullptr) return {};
  Json parsed;
  if (arguments->is_string()) {
    const auto& text = arguments->get_ref<const std::string&>();
    if (text.empty()) return {};
    if (Status status = parseJson(text, where, parsed); !status.ok()) return status;
    arguments = &parsed;
  }
  if (!arguments->is_object())
    return wrongValue(where, "an object, or JSON text of one", arguments);
  out = *arguments;
  return {};
}

Status readCall(const Json& entry, const std::string& entryWhere, ToolCall& out) {
  if (!entry.is_object()) return wrongValue(entryWhere, "an object", &entry);
  const bool wrapped = entry.contains("function");
  const Json& call = wrapped ? entry.at("function") : entry;
  const std::string where = entryWhere + (wrapped ? ".function" : "");
  if (!call.is_object()) return wrongValue(where, "an object", &call);
  const Json* name = memberOf(call, "name");
  if (name == nullptr || !name->is_string()) return wrongValue(where + ".name", "text", name);
  out.name = name->get<std::string>();
  return readArguments(call, where + ".arguments", out.arguments);
}

Status readAssistant(const Json& message, const std::string& where, Message& out) {
  if (const Json* reasoning = memberOf(message, "reasoning_content")) {
    if (!reasoning->is_string()) {
      return wrongValue(where + ".reasoning_content", "text or null", reasoning);
    }
    out.reasoning = reasoning->get<std::string>();
  }
  const Json* calls = memberOf(message, "tool_calls");
  if (calls == nullptr) return {};
  const std::string list = where + ".tool_calls";
  if (!calls->is_array()) return wrongValue(list, "a list of calls", calls);
  out.calls.resize(calls->size());
  for (size_t i = 0; i < out.calls.size(); ++i) {
    if (Status status = readCall((*calls)[i], element(list, i), out.calls[i]); !status.ok()) {
      return status;
    }
  }
  return {};
}

Status readMessage(const Json& message, const std::string& where, Message& out) {
  if (!message.is_object()) return wrongValue(where, "an object", &message);
  if (Status status = readRole(message, where, out.role); !status.ok()) return status;
  if (Status status = readContent(message, where + ".content", out.content); !status.ok()) {
    return status;
  }
  if (out.role == Role::Assistant) return readAssistant(message, where, out);
  return {};
}

}  // namespace

std::string_view nameOf(Role role) { return kRoles[static_cast<size_t>(role)]; }

Status readMessages(const Json& messages, std::vector<Message>& out) {
  out.clear();
  if (!messages.is_array()) return wrongValue("messages", "a list of messages", &messages);
  std::vector<Message> read(messages.size());
  for (size_t i = 0; i < read.size(); ++i) {
    if (Status status = readMessage(messages[i], element("messages", i), read[i]); !status.ok()) {
      return status;
    }
  }
  out = std::move(read);
  return {};
}

Status readTools(const Json& tools, std::vector<Json>& out) {
  out.clear();
  if (tools.is_null()) return {};
  if (!tools.is_array()) return wrongValue("tools", "a list of tools or null", &tools);
  for (size_t i = 0; i < tools.size(); ++i) {
    if (!tools[i].is_object()) return wrongValue(element("tools", i), "an object", &tools[i]);
  }
  out.assign(tools.begin(), tools.end());
  return {};
}

}  // namespace zem::text
