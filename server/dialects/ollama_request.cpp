// SPDX-License-Identifier: Apache-2.0
#include <limits>
#include <utility>

#include "server/dialects/fields.h"
#include "server/dialects/ollama.h"
#include "server/dialects/openai_chat.h"

namespace zem::server {
namespace {

void readFormat(const Fields& fields, ChatRequest& chat) {
  const Json* format = fields.find("format");
  if (format == nullptr || (format->is_string() && format->get_ref<const std::string&>().empty()))
    return;
  if (*format == "json") {
    chat.schema = Json{{"type", "object"}};
  } else if (format->is_object()) {
    chat.schema = *format;
  } else {
    fields.fail("format", "\"json\" or a JSON schema");
  }
}

void readThink(const Fields& fields, ChatRequest& chat) {
  const Json* think = fields.find("think");
  if (think == nullptr) return;
  if (think->is_boolean()) {
    chat.format.thinking = think->get<bool>();
  } else if (think->is_string()) {
    chat.format.thinking = true;
    chat.format.reasoningEffort = think->get<std::string>();
  } else {
    fields.fail("think", "true, false, or an effort");
  }
}

// "num_predict": negative ones stand for no limit.
uint64_t readPrediction(const Fields& options) {
  const Json* value = options.find("num_predict");
  if (value == nullptr || *value == -1 || *value == -2) return kNoTokenLimit;
  return *options.count("num_predict", 1, std::numeric_limits<int64_t>::max());
}

void readOptions(const Fields& fields, ChatRequest& chat) {
  const Json* value = fields.object("options");
  if (value == nullptr) return;
  const Fields options(*value, "options");
  chat.sampling = readSampling(options);
  chat.stopTexts = readStops(options, "stop");
  chat.maxTokens = readPrediction(options);
}

// Members have names of their own here, but for those that all dialects share.
Json renamed(const Json& messages) {
  Json copy = messages;
  for (size_t i = 0; i < copy.size(); ++i) {
    Json& message = copy[i];
    if (!message.is_object()) continue;
    const std::string where = "messages[" + std::to_string(i) + "]";
    Fields(message, where).refuse({"images"});
    if (message.contains("thinking")) message["reasoning_content"] = message["thinking"];
  }
  return copy;
}

void readShared(const Fields& fields, OllamaCall& call) {
  call.stream = fields.flag("stream").value_or(true);
  call.chat.format.mergeSystem = true;
  readFormat(fields, call.chat);
  readThink(fields, call.chat);
  readOptions(fields, call.chat);
}

}  // namespace

OllamaCall readOllamaChat(const Json& body) {
  const Fields fields(body);
  OllamaCall call;
  readShared(fields, call);
  call.chat.tools = readFunctionTools(fields.find("tools"), "tools");
  const Json* messages = fields.list("messages");
  call.loads = messages == nullptr || messages->empty();
  if (call.loads) return call;
  require(text::readMessages(renamed(*messages), call.chat.messages));
  checkMessages(call.chat.messages);
  return call;
}

OllamaCall readOllamaGenerate(const Json& body) {
  const Fields fields(body);
  fields.refuse({"suffix", "images", "context", "template"});
  OllamaCall call;
  call.generates = true;
  readShared(fields, call);
  const std::string prompt = fields.text("prompt").value_or("");
  call.loads = prompt.empty();
  if (fields.flag("raw").value_or(false)) {
    if (call.chat.schema) throw ApiError(400, "format: is not supported with raw", "format");
    CompletionCall raw;
    raw.prompts = {{{{prompt, {}}}}};
    raw.sampling = std::move(call.chat.sampling);
    raw.stopTexts = std::move(call.chat.stopTexts);
    raw.maxTokens = call.chat.maxTokens;
    call.raw = std::move(raw);
    return call;
  }
  const auto say = [&](text::Role role, const std::string& said) {
    text::Message message;
    message.role = role;
    message.content.push_back({text::ContentPart::Kind::Text, said});
    call.chat.messages.push_back(std::move(message));
  };
  if (const auto system = fields.text("system")) say(text::Role::System, *system);
  say(text::Role::User, prompt);
  return call;
}

}  // namespace zem::server
