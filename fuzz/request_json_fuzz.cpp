// SPDX-License-Identifier: Apache-2.0
// Any text as a chat request and as the settings of a reply: what is read is read the same again,
// or there is a message. Settings that stand alone are those inside a chat.
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>

#include "engine/chat_request_json.h"
#include "fuzz.h"

namespace {

using namespace zem;
using zemfuzz::require;

template <typename Settings>
void requireSame(const ReplySettings& one, const Settings& other) {
  require(one.stopTexts == other.stopTexts, "other stop texts");
  require(one.maxTokens == other.maxTokens, "another limit");
  require(one.logProbabilities == other.logProbabilities, "other log probabilities");
  require(one.sampling.seed == other.sampling.seed, "another seed");
  require(one.sampling.logitBias.size() == other.sampling.logitBias.size(), "another bias");
}

void checkSettings(std::string_view json) {
  ReplySettings settings;
  const kiv::Status status = readReplySettings(json, settings);
  require(status.ok() == status.message().empty(), "a failure without a message");
  if (!status.ok()) return;
  text::Json object = text::Json::parse(json);
  object["messages"] = text::Json::array();
  ChatRequest chat;
  require(readChatRequest(object.dump(), chat).ok(), "settings that a chat refuses");
  requireSame(settings, chat);
}

void checkChat(std::string_view json) {
  ChatRequest chat;
  const kiv::Status status = readChatRequest(json, chat);
  require(status.ok() == status.message().empty(), "a failure without a message");
  ChatRequest again;
  require(readChatRequest(json, again).message() == status.message(), "another message");
  require(chat.onlyTool.empty() || chat.toolChoice == ToolChoice::Required, "a tool not required");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string_view json(reinterpret_cast<const char*>(data), size);
  checkSettings(json);
  checkChat(json);
  return 0;
}
