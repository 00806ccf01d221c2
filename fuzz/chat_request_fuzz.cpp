// SPDX-License-Identifier: Apache-2.0
// Any text as a chat request: a prompt in every format, or an error. The segments of a
// prompt are the prompt, and those that may hold control tokens are the template's.
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>
#include <vector>

#include "engine/text/chat_message.h"
#include "engine/text/chat_renderer.h"
#include "engine/text/render_request.h"
#include "fuzz.h"

namespace {

using namespace zem::text;
using zemfuzz::require;

Json parsed(std::string_view text) {
  Json value;
  const kiv::Status status = parseJson(text, "request", value);
  if (!status.ok()) require(!status.message().empty(), "a failure without a message");
  return value;
}

void checkAnswer(std::string_view line, const ChatFormat& format) {
  const std::string answer = renderRequest(line, format);
  const Json value = Json::parse(answer, nullptr, false);
  require(!value.is_discarded(), "an answer that is not JSON");
  require(value.is_string() || value.contains("error"), "an answer of another kind");
  require(answer.find('\n') == std::string::npos, "an answer of two lines");
}

void checkSegments(const Json& request, const ChatFormat& format, bool trust) {
  if (!request.is_object() || !request.contains("messages")) return;
  std::vector<Message> messages;
  std::vector<Json> tools;
  if (!readMessages(request.at("messages"), messages).ok()) return;
  if (!readTools(request.contains("tools") ? request.at("tools") : Json(), tools).ok()) return;
  RenderOptions options;
  options.mergeSystem = true;
  options.trustText = trust;
  RenderedChat chat;
  if (!renderChat(format, messages, tools, options, chat).ok()) {
    require(chat.segments.empty(), "a failure with a prompt");
    return;
  }
  std::string joined;
  for (const Segment& segment : chat.segments) {
    require(!segment.text.empty(), "an empty segment");
    require(segment.control || !trust, "text that is not trusted");
    joined += segment.text;
  }
  require(joined == chat.text(), "segments that are not the prompt");
  require(chat.systemSegments <= chat.lastQuestion, "the system behind a question");
  require(chat.lastQuestion < chat.segments.size(), "no question");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string_view line(reinterpret_cast<const char*>(data), size);
  const Json request = parsed(line);
  for (const char* name : {"qwen3.5", "qwen3.8"}) {
    const ChatFormat& format = *chatFormatByName(name);
    checkAnswer(line, format);
    checkSegments(request, format, false);
    checkSegments(request, format, true);
  }
  return 0;
}
