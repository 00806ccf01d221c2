// SPDX-License-Identifier: Apache-2.0
#include <array>
#include <utility>

#include "server/dialects/fields.h"
#include "server/dialects/openai_chat.h"
#include "server/dialects/responses.h"

namespace zem::server {
namespace {

using text::ContentPart;
using text::Message;
using text::Role;

std::string placeIn(const std::string& list, size_t index) {
  return list + "[" + std::to_string(index) + "]";
}

std::string textOfItem(const Fields& item, std::string_view name) {
  const auto found = item.text(name);
  if (!found) item.fail(name, "a text");
  return *found;
}

[[noreturn]] void failType(const Fields& item, const std::string& type) {
  throw ApiError(
      400, item.named("type") + ": the type " + jsonText(type.substr(0, 40)) + " is not supported",
      item.named("type"));
}

// A text, or a list of parts that have one.
std::vector<ContentPart> readParts(const Json& value, const std::string& where) {
  std::vector<ContentPart> parts;
  if (value.is_string()) {
    parts.push_back({ContentPart::Kind::Text, value.get<std::string>()});
    return parts;
  }
  if (!value.is_array()) failField(where, &value, "a text or a list of parts");
  for (size_t i = 0; i < value.size(); ++i) {
    const Fields part(value[i], placeIn(where, i));
    const std::string type = textOfItem(part, "type");
    if (type != "input_text" && type != "output_text" && type != "reasoning_text" &&
        type != "text") {
      failType(part, type);
    }
    parts.push_back({ContentPart::Kind::Text, textOfItem(part, "text")});
  }
  return parts;
}

Role roleOf(const Fields& item) {
  const std::string role = item.text("role").value_or("");
  for (const Role one : {Role::System, Role::Developer, Role::User, Role::Assistant}) {
    if (role == text::nameOf(one)) return one;
  }
  item.fail("role", "system, developer, user or assistant");
}

// Items in a row that the assistant said are one message.
class ItemReader {
 public:
  explicit ItemReader(std::vector<Message>& out) : out_(out) {}

  void read(const Fields& item) {
    const bool isMessage = item.find("type") == nullptr && item.find("role") != nullptr;
    const std::string type = isMessage ? "message" : textOfItem(item, "type");
    if (type == "message") {
      readMessage(item);
    } else if (type == "function_call") {
      readCall(item);
    } else if (type == "function_call_output") {
      readAnswer(item);
    } else if (type == "reasoning") {
      readReasoning(item);
    } else {
      failType(item, type);
    }
  }

 private:
  Message& assistant() {
    if (out_.empty() || out_.back().role != Role::Assistant) {
      out_.push_back({Role::Assistant, {}, {}, {}});
    }
    return out_.back();
  }

  void readMessage(const Fields& item) {
    const Role role = roleOf(item);
    const Json* content = item.find("content");
    if (content == nullptr) item.fail("content", "a text or a list of parts");
    std::vector<ContentPart> parts = readParts(*content, item.named("content"));
    const bool goesOn = role == Role::Assistant && !out_.empty() &&
                        out_.back().role == Role::Assistant && out_.back().content.empty() &&
                        out_.back().calls.empty();
    if (!goesOn) out_.push_back({role, {}, {}, {}});
    out_.back().content = std::move(parts);
  }

  void readCall(const Fields& item) {
    text::ToolCall call;
    call.name = textOfItem(item, "name");
    const std::string arguments = item.text("arguments").value_or("");
    if (!arguments.empty()) {
      require(text::parseJson(arguments, item.named("arguments"), call.arguments));
      if (!call.arguments.is_object()) item.fail("arguments", "JSON text of an object");
    }
    assistant().calls.push_back(std::move(call));
  }

  void readAnswer(const Fields& item) {
    const Json* output = item.find("output");
    if (output == nullptr) item.fail("output", "a text");
    out_.push_back({Role::Tool, readParts(*output, item.named("output")), {}, {}});
  }

  void readReasoning(const Fields& item) {
    const Json* content = item.list("content");
    std::string reasoning;
    if (content != nullptr) {
      for (const ContentPart& part : readParts(*content, item.named("content"))) {
        reasoning += part.text;
      }
    }
    if (reasoning.empty()) return;
    out_.push_back({Role::Assistant, {}, reasoning, {}});
  }

  std::vector<Message>& out_;
};

void readInput(const Fields& fields, ChatRequest& chat) {
  if (const auto instructions = fields.text("instructions")) {
    chat.messages.push_back({Role::System, {{ContentPart::Kind::Text, *instructions}}, {}, {}});
  }
  const Json* input = fields.find("input");
  if (input != nullptr && input->is_string()) {
    chat.messages.push_back({Role::User, readParts(*input, "input"), {}, {}});
    return;
  }
  if (input == nullptr || !input->is_array() || input->empty()) {
    fields.fail("input", "a text or a list of items");
  }
  ItemReader reader(chat.messages);
  for (size_t i = 0; i < input->size(); ++i) reader.read(Fields((*input)[i], placeIn("input", i)));
}

// Tools are flat here; the model knows them wrapped.
std::vector<Json> readFlatTools(const Fields& fields) {
  std::vector<Json> tools;
  const Json* list = fields.list("tools");
  for (size_t i = 0; list != nullptr && i < list->size(); ++i) {
    const Fields tool((*list)[i], placeIn("tools", i));
    const std::string type = textOfItem(tool, "type");
    if (type != "function") failType(tool, type);
    Json function = {{"name", textOfItem(tool, "name")}};
    if (const auto description = tool.text("description")) function["description"] = *description;
    if (const Json* parameters = tool.object("parameters")) function["parameters"] = *parameters;
    tools.push_back({{"type", "function"}, {"function", std::move(function)}});
  }
  return tools;
}

void readTextFormat(const Fields& fields, ChatRequest& chat) {
  const Json* text = fields.object("text");
  const Json* value = text != nullptr ? Fields(*text, "text").object("format") : nullptr;
  if (value == nullptr) return;
  const Fields format(*value, "text.format");
  const std::string type = textOfItem(format, "type");
  if (type == "json_object") {
    chat.schema = Json{{"type", "object"}};
  } else if (type == "json_schema") {
    const Json* schema = format.object("schema");
    if (schema == nullptr) format.fail("schema", "a JSON schema");
    chat.schema = *schema;
  } else if (type != "text") {
    format.fail("type", "text, json_object or json_schema");
  }
}

Json echoOf(const Fields& fields) {
  struct Member {
    const char* name;
    Json unset;
  };
  const std::array<Member, 10> members = {
      {{"instructions", nullptr},
       {"max_output_tokens", nullptr},
       {"metadata", Json::object()},
       {"parallel_tool_calls", true},
       {"reasoning", {{"effort", nullptr}, {"summary", nullptr}}},
       {"temperature", nullptr},
       {"text", {{"format", {{"type", "text"}}}}},
       {"tool_choice", "auto"},
       {"tools", Json::array()},
       {"top_p", nullptr}}};
  Json echo = Json::object();
  for (const Member& member : members) {
    const Json* value = fields.find(member.name);
    echo[member.name] = value != nullptr ? *value : member.unset;
  }
  return echo;
}

}  // namespace

ResponsesCall readResponses(const Json& body) {
  const Fields fields(body);
  fields.refuse({"previous_response_id", "conversation", "background", "prompt", "max_tool_calls"});
  ResponsesCall call;
  ChatRequest& chat = call.chat;
  readInput(fields, chat);
  checkMessages(chat.messages);
  chat.format.mergeSystem = true;
  chat.tools = readFlatTools(fields);
  readToolChoice(fields.find("tool_choice"), chat);
  chat.severalCalls = fields.flag("parallel_tool_calls").value_or(true);
  readTextFormat(fields, chat);
  if (const Json* reasoning = fields.object("reasoning")) {
    const auto effort = Fields(*reasoning, "reasoning").text("effort");
    if (effort == "none") chat.format.thinking = false;
    if (effort && effort != "none") chat.format.reasoningEffort = *effort;
  }
  chat.sampling = readSampling(fields);
  chat.maxTokens = readTokenLimit(fields, "max_output_tokens");
  call.stream = fields.flag("stream").value_or(false);
  call.echo = echoOf(fields);
  return call;
}

}  // namespace zem::server
