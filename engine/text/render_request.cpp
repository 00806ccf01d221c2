// SPDX-License-Identifier: Apache-2.0
#include "engine/text/render_request.h"

#include <vector>

#include "engine/text/chat/python_text.h"
#include "engine/text/chat_message.h"
#include "engine/text/json.h"

namespace zem::text {
namespace {

using kiv::Status;

Status wrong(std::string_view name, std::string_view expected, std::string_view found) {
  return {kiv::StatusCode::InvalidFormat, std::string(name) + ": found " + std::string(found) +
                                              ", expected " + std::string(expected)};
}

Status readSwitch(const Json& request, std::string_view name, std::optional<bool>& out) {
  const Json* value = memberOf(request, name);
  if (value == nullptr) return {};
  if (!value->is_boolean()) return wrong(name, "true, false or null", kindOf(*value));
  out = value->get<bool>();
  return {};
}

Status readSwitch(const Json& request, std::string_view name, bool& out) {
  std::optional<bool> value;
  Status status = readSwitch(request, name, value);
  out = value.value_or(out);
  return status;
}

Status readText(const Json& request, std::string_view name, std::string& out) {
  const Json* value = memberOf(request, name);
  if (value == nullptr) return {};
  if (!value->is_string()) return wrong(name, "text or null", kindOf(*value));
  out = value->get<std::string>();
  return {};
}

Status readOptions(const Json& request, RenderOptions& out) {
  Status status = readSwitch(request, "add_generation_prompt", out.openReply);
  if (status.ok()) status = readSwitch(request, "enable_thinking", out.thinking);
  if (status.ok()) status = readSwitch(request, "preserve_thinking", out.preserveThinking);
  if (status.ok()) status = readSwitch(request, "add_vision_id", out.numberMedia);
  if (status.ok()) status = readText(request, "reasoning_effort", out.reasoningEffort);
  if (status.ok()) status = readSwitch(request, "merge_system", out.mergeSystem);
  if (status.ok()) status = readSwitch(request, "omit_empty_thinking", out.omitEmptyThinking);
  return status;
}

Status readFormat(const Json& request, const ChatFormat*& out) {
  std::string name;
  if (Status status = readText(request, "chat_template", name); !status.ok()) return status;
  if (name.empty()) return {};
  out = chatFormatByName(name);
  if (out != nullptr) return {};
  return wrong("chat_template", "one of " + chatFormatNames(), quotedStart(name));
}

Status render(std::string_view text, const ChatFormat* format, RenderedChat& out) {
  Json request;
  if (Status status = parseJson(text, "request", request); !status.ok()) return status;
  if (!request.is_object()) return wrong("request", "an object", kindOf(request));
  if (Status status = readFormat(request, format); !status.ok()) return status;
  RenderOptions options;
  if (Status status = readOptions(request, options); !status.ok()) return status;
  const auto listOf = [&](const char* name) {
    return request.contains(name) ? request.at(name) : Json();
  };
  std::vector<Message> messages;
  if (Status status = readMessages(listOf("messages"), messages); !status.ok()) return status;
  std::vector<Json> tools;
  if (Status status = readTools(listOf("tools"), tools); !status.ok()) return status;
  return renderChat(*format, messages, tools, options, out);
}

}  // namespace

Status renderRequest(std::string_view request, const ChatFormat& format, RenderedChat& out) {
  out = RenderedChat();
  return render(request, &format, out);
}

std::string renderRequest(std::string_view line, const ChatFormat& format) {
  RenderedChat chat;
  const Status status = renderRequest(line, format, chat);
  if (status.ok()) return quotedJson(chat.text());
  return "{\"error\": " + quotedJson(status.message()) + "}";
}

}  // namespace zem::text
