// SPDX-License-Identifier: Apache-2.0
#include "engine/text/chat_message.h"
#include "server/dialects/fields.h"
#include "server/dialects/openai_chat.h"

namespace zem::server {
namespace {

void checkMedia(const text::Message& message, const std::string& where) {
  for (size_t i = 0; i < message.content.size(); ++i) {
    if (message.content[i].kind == text::ContentPart::Kind::Text) continue;
    const std::string field = where + ".content[" + std::to_string(i) + "]";
    throw ApiError(400, field + ": images and videos are not supported", field,
                   "unsupported_content");
  }
}

// Programs that were written for other models send these.
void checkOrder(const Fields& fields) {
  const bool goesOn = fields.flag("continue_final_message").value_or(false);
  if (goesOn && fields.flag("add_generation_prompt").value_or(false)) {
    throw ApiError(400,
                   "continue_final_message: excludes add_generation_prompt; leave one of them out",
                   "continue_final_message");
  }
  fields.refuse({"continue_final_message"});
  if (!fields.flag("add_generation_prompt").value_or(true)) {
    throw ApiError(400, "add_generation_prompt: found false, needed true for a reply",
                   "add_generation_prompt");
  }
}

void readForm(const Fields& fields, ReplyForm& form) {
  form.stream = fields.flag("stream").value_or(false);
  form.choices = static_cast<size_t>(fields.count("n", 1, kMostChoices).value_or(1));
  form.progress = fields.flag("return_progress").value_or(false);
  if (const Json* options = fields.object("stream_options")) {
    form.streamsUsage = Fields(*options, "stream_options").flag("include_usage").value_or(false);
  }
}

void readLogProbabilities(const Fields& fields, ChatCall& call) {
  call.form.logProbabilities = fields.flag("logprobs").value_or(false);
  const auto top = fields.count("top_logprobs", 0, kMostLogProbabilities);
  if (top && *top > 0 && !call.form.logProbabilities) {
    throw ApiError(400, "top_logprobs: needs logprobs to be true", "top_logprobs");
  }
  if (call.form.logProbabilities) {
    call.chat.logProbabilities = static_cast<size_t>(top.value_or(0));
  }
}

void readResponseFormat(const Json* value, ChatRequest& chat) {
  if (value == nullptr) return;
  const Fields format(*value, "response_format");
  const std::string type = format.text("type").value_or("");
  if (type == "text") return;
  if (type == "json_object") {
    // Some programs put a schema here.
    const Json* schema = format.object("schema");
    chat.schema = schema != nullptr ? *schema : Json{{"type", "object"}};
    return;
  }
  if (type != "json_schema") format.fail("type", "text, json_object or json_schema");
  const Json* wrapper = format.object("json_schema");
  if (wrapper == nullptr) format.fail("json_schema", "an object");
  const Fields fields(*wrapper, "response_format.json_schema");
  const Json* schema = fields.find("schema");
  if (schema == nullptr || (!schema->is_object() && !schema->is_boolean())) {
    fields.fail("schema", "a JSON schema");
  }
  chat.schema = *schema;
}

void readThinking(const Fields& fields, ChatRequest& chat) {
  readTemplateSettings(fields, chat.format);
  if (const Json* settings = fields.object("chat_template_kwargs")) {
    readTemplateSettings(Fields(*settings, "chat_template_kwargs"), chat.format);
  }
  chat.thinkingBudget =
      fields.count("thinking_budget_tokens", 0, std::numeric_limits<int64_t>::max());
}

}  // namespace

void checkMessages(const std::vector<text::Message>& messages) {
  const size_t count = messages.size();
  if (count == 0) throw ApiError(400, "messages: found none, needed at least one", "messages");
  for (size_t i = 0; i < count; ++i) {
    checkMedia(messages[i], "messages[" + std::to_string(i) + "]");
  }
  const auto isAssistant = [&](size_t i) { return messages[i].role == text::Role::Assistant; };
  if (count >= 2 && isAssistant(count - 1) && isAssistant(count - 2)) {
    const std::string field = "messages[" + std::to_string(count - 1) + "]";
    throw ApiError(400, field + ": found two messages of the assistant at the end", field);
  }
}

void readTemplateSettings(const Fields& settings, text::RenderOptions& format) {
  if (const auto thinking = settings.flag("enable_thinking")) format.thinking = thinking;
  if (const auto keep = settings.flag("preserve_thinking")) format.preserveThinking = keep;
  if (const auto effort = settings.text("reasoning_effort")) {
    if (*effort == "none") {
      format.thinking = false;
    } else {
      format.reasoningEffort = *effort;
    }
  }
}

std::vector<Json> readFunctionTools(const Json* tools, const std::string& where) {
  std::vector<Json> read;
  if (tools == nullptr) return read;
  if (!tools->is_array()) failField(where, tools, "a list of tools");
  for (size_t i = 0; i < tools->size(); ++i) {
    const Fields tool((*tools)[i], where + "[" + std::to_string(i) + "]");
    if (tool.text("type").value_or("function") != "function") tool.fail("type", "\"function\"");
    const Json* function = tool.object("function");
    if (function == nullptr) tool.fail("function", "an object");
    const Fields fields(*function, tool.named("function"));
    if (fields.text("name").value_or("").empty()) fields.fail("name", "the name of a function");
    read.push_back((*tools)[i]);
  }
  return read;
}

void readToolChoice(const Json* choice, ChatRequest& chat) {
  constexpr const char* kNeeded = "none, auto, required, or an object that names a function";
  if (choice == nullptr) return;
  if (choice->is_string()) {
    if (*choice == "none") {
      chat.toolChoice = ToolChoice::None;
    } else if (*choice == "required") {
      chat.toolChoice = ToolChoice::Required;
    } else if (*choice != "auto") {
      throw ApiError(400, std::string("tool_choice: found another text, needed ") + kNeeded,
                     "tool_choice");
    }
  } else {
    if (!choice->is_object()) failField("tool_choice", choice, kNeeded);
    const Fields fields(*choice, "tool_choice");
    const Json* function = fields.object("function");
    const Fields named(function != nullptr ? *function : *choice,
                       function != nullptr ? "tool_choice.function" : "tool_choice");
    chat.onlyTool = named.text("name").value_or("");
    if (chat.onlyTool.empty()) named.fail("name", "the name of a function");
    chat.toolChoice = ToolChoice::Required;
  }
  if (chat.toolChoice == ToolChoice::Required && chat.tools.empty()) {
    throw ApiError(400, "tool_choice: asks for a call, but there are no tools", "tool_choice");
  }
}

ChatCall readOpenAiChat(const Json& body) {
  const Fields fields(body);
  fields.refuse({"functions", "function_call", "audio", "prediction", "web_search_options",
                 "grammar", "suffix", "echo", "best_of", "store"});
  ChatCall call;
  ChatRequest& chat = call.chat;
  const Json* messages = fields.list("messages");
  if (messages == nullptr) fields.fail("messages", "a list of messages");
  require(text::readMessages(*messages, chat.messages));
  checkMessages(chat.messages);
  checkOrder(fields);
  chat.format.mergeSystem = true;
  readForm(fields, call.form);
  chat.tools = readFunctionTools(fields.find("tools"), "tools");
  readToolChoice(fields.find("tool_choice"), chat);
  chat.severalCalls = fields.flag("parallel_tool_calls").value_or(true);
  readResponseFormat(fields.find("response_format"), chat);
  readThinking(fields, chat);
  readLogProbabilities(fields, call);
  chat.sampling = readSampling(fields);
  chat.stopTexts = readStops(fields, "stop");
  const bool newer = fields.find("max_completion_tokens") != nullptr;
  chat.maxTokens = readTokenLimit(fields, newer ? "max_completion_tokens" : "max_tokens");
  return call;
}

}  // namespace zem::server
