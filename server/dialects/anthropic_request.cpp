// SPDX-License-Identifier: Apache-2.0
#include <limits>
#include <utility>

#include "server/dialects/anthropic.h"
#include "server/dialects/fields.h"

namespace zem::server {
namespace {

using text::ContentPart;
using text::Message;
using text::Role;

std::string elementOf(const std::string& list, size_t index) {
  return list + "[" + std::to_string(index) + "]";
}

std::string neededText(const Fields& block, std::string_view name) {
  const auto found = block.text(name);
  if (!found) block.fail(name, "a text");
  return *found;
}

std::string typeOf(const Fields& block) { return neededText(block, "type"); }

[[noreturn]] void failBlock(const Fields& block, const std::string& type) {
  const std::string field = block.named("type");
  throw ApiError(
      400,
      field + ": blocks of the type " + jsonText(type.substr(0, 40)) + " are not supported here",
      field);
}

// A text, or a list of blocks of text.
std::vector<ContentPart> readTexts(const Json& value, const std::string& where) {
  std::vector<ContentPart> parts;
  if (value.is_string()) {
    parts.push_back({ContentPart::Kind::Text, value.get<std::string>()});
    return parts;
  }
  if (!value.is_array()) failField(where, &value, "a text or a list of blocks");
  for (size_t i = 0; i < value.size(); ++i) {
    const Fields block(value[i], elementOf(where, i));
    if (const std::string type = typeOf(block); type != "text") failBlock(block, type);
    parts.push_back({ContentPart::Kind::Text, neededText(block, "text")});
  }
  return parts;
}

// The blocks of one message become one message or several: answers of tools stand for themselves.
class BlockReader {
 public:
  BlockReader(Role role, std::vector<Message>& out) : role_(role), out_(out) {}

  void read(const Fields& block) {
    const std::string type = typeOf(block);
    if (type == "text") {
      said().content.push_back({ContentPart::Kind::Text, neededText(block, "text")});
    } else if (type == "tool_result" && role_ == Role::User) {
      readAnswer(block);
    } else if (type == "tool_use" && role_ == Role::Assistant) {
      readCall(block);
    } else if (type == "thinking" && role_ == Role::Assistant) {
      auto& reasoning = said().reasoning;
      reasoning = reasoning.value_or("") + neededText(block, "thinking");
    } else if (type != "redacted_thinking" || role_ != Role::Assistant) {
      failBlock(block, type);
    }
  }

 private:
  Message& said() {
    if (!open_) out_.push_back({role_, {}, {}, {}});
    open_ = true;
    return out_.back();
  }

  void readAnswer(const Fields& block) {
    Message answer;
    answer.role = Role::Tool;
    if (const Json* content = block.find("content")) {
      answer.content = readTexts(*content, block.named("content"));
    }
    out_.push_back(std::move(answer));
    open_ = false;
  }

  void readCall(const Fields& block) {
    text::ToolCall call;
    call.name = neededText(block, "name");
    if (const Json* input = block.object("input")) call.arguments = *input;
    said().calls.push_back(std::move(call));
  }

  Role role_;
  std::vector<Message>& out_;
  bool open_ = false;
};

void readTurn(const Json& turn, const std::string& where, std::vector<Message>& out) {
  const Fields fields(turn, where);
  const std::string role = fields.text("role").value_or("");
  if (role != "user" && role != "assistant") fields.fail("role", "user or assistant");
  const Json* content = fields.find("content");
  if (content == nullptr) fields.fail("content", "a text or a list of blocks");
  const Role speaker = role == "user" ? Role::User : Role::Assistant;
  if (content->is_string()) {
    out.push_back({speaker, readTexts(*content, fields.named("content")), {}, {}});
    return;
  }
  if (!content->is_array()) fields.fail("content", "a text or a list of blocks");
  BlockReader reader(speaker, out);
  for (size_t i = 0; i < content->size(); ++i) {
    reader.read(Fields((*content)[i], elementOf(fields.named("content"), i)));
  }
}

void readConversation(const Fields& fields, ChatRequest& chat) {
  if (const Json* system = fields.find("system")) {
    chat.messages.push_back({Role::System, readTexts(*system, "system"), {}, {}});
  }
  const Json* turns = fields.list("messages");
  if (turns == nullptr || turns->empty()) fields.fail("messages", "a list of messages");
  for (size_t i = 0; i < turns->size(); ++i) {
    readTurn((*turns)[i], elementOf("messages", i), chat.messages);
  }
  if (chat.messages.empty() || chat.messages.back().role == Role::Assistant) {
    throw ApiError(400,
                   "messages: the last one is the assistant's; to go on with a reply is not "
                   "supported",
                   "messages");
  }
}

std::vector<Json> readTools(const Fields& fields) {
  std::vector<Json> tools;
  const Json* list = fields.list("tools");
  for (size_t i = 0; list != nullptr && i < list->size(); ++i) {
    const Fields tool((*list)[i], elementOf("tools", i));
    if (tool.text("type").value_or("custom") != "custom") {
      tool.fail("type", "\"custom\"; tools of a server are not supported");
    }
    Json function = {{"name", neededText(tool, "name")}};
    if (const auto description = tool.text("description")) function["description"] = *description;
    const Json* schema = tool.object("input_schema");
    if (schema == nullptr) tool.fail("input_schema", "a JSON schema");
    function["parameters"] = *schema;
    tools.push_back({{"type", "function"}, {"function", std::move(function)}});
  }
  return tools;
}

void readChoice(const Fields& fields, ChatRequest& chat) {
  const Json* value = fields.object("tool_choice");
  if (value == nullptr) return;
  const Fields choice(*value, "tool_choice");
  const std::string type = typeOf(choice);
  if (type == "none") {
    chat.toolChoice = ToolChoice::None;
  } else if (type == "any" || type == "tool") {
    chat.toolChoice = ToolChoice::Required;
    if (type == "tool") chat.onlyTool = neededText(choice, "name");
    if (chat.tools.empty()) throw ApiError(400, "tool_choice: there are no tools", "tool_choice");
  } else if (type != "auto") {
    choice.fail("type", "auto, any, tool or none");
  }
  chat.severalCalls = !choice.flag("disable_parallel_tool_use").value_or(false);
}

// Thinking is off in this dialect unless it is asked for.
void readThinkingBlock(const Fields& fields, ChatRequest& chat) {
  chat.format.thinking = false;
  const Json* value = fields.object("thinking");
  if (value == nullptr) return;
  const Fields thinking(*value, "thinking");
  const std::string type = typeOf(thinking);
  if (type != "enabled" && type != "adaptive" && type != "disabled") {
    thinking.fail("type", "enabled, adaptive or disabled");
  }
  chat.format.thinking = type != "disabled";
  if (type == "enabled") {
    chat.thinkingBudget = thinking.count("budget_tokens", 1, std::numeric_limits<int64_t>::max());
  }
}

void readOutputConfig(const Fields& fields, ChatRequest& chat) {
  const Json* value = fields.object("output_config");
  if (value == nullptr) return;
  const Fields config(*value, "output_config");
  if (const auto effort = config.text("effort")) chat.format.reasoningEffort = *effort;
  const Json* form = config.object("format");
  if (form == nullptr) return;
  const Fields format(*form, config.named("format"));
  if (typeOf(format) != "json_schema") format.fail("type", "\"json_schema\"");
  const Json* schema = format.object("schema");
  if (schema == nullptr) format.fail("schema", "a JSON schema");
  chat.schema = *schema;
}

}  // namespace

AnthropicCall readAnthropic(const Json& body, bool counts) {
  const Fields fields(body);
  fields.refuse({"mcp_servers", "container", "context_management"});
  AnthropicCall call;
  ChatRequest& chat = call.chat;
  readConversation(fields, chat);
  chat.format.mergeSystem = true;
  chat.tools = readTools(fields);
  readChoice(fields, chat);
  readThinkingBlock(fields, chat);
  readOutputConfig(fields, chat);
  chat.sampling = readSampling(fields);
  chat.stopTexts = readStops(fields, "stop_sequences");
  call.stream = fields.flag("stream").value_or(false);
  const auto most = fields.count("max_tokens", 1, std::numeric_limits<int64_t>::max());
  if (!most && !counts) fields.fail("max_tokens", "a number of tokens");
  chat.maxTokens = most.value_or(kNoTokenLimit);
  return call;
}

}  // namespace zem::server
