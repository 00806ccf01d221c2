// SPDX-License-Identifier: Apache-2.0
#include <algorithm>
#include <cmath>

#include "server/dialects/openai_chat.h"
#include "server/http/random_id.h"

namespace zem::server {
namespace {

// For a probability of 0: clients refuse what is infinite.
constexpr double kLeastLogProbability = -9999.0;

Json tokenJson(const std::string& bytes, double logProbability) {
  return {{"token", bytes},
          {"logprob", std::max(logProbability, kLeastLogProbability)},
          {"bytes", std::vector<uint8_t>(bytes.begin(), bytes.end())}};
}

class OpenAiChatWriter : public ReplyWriter {
 public:
  OpenAiChatWriter(const ReplyFacts& facts, const ReplyForm& form)
      : facts_(facts), form_(form), choices_(form.choices) {}

  std::string begin() override {
    std::string text;
    for (size_t i = 0; i < choices_.size(); ++i) {
      text += delta(i, {{"role", "assistant"}, {"content", ""}});
    }
    return text;
  }

  std::string prompt(const PromptProgress& progress) override {
    if (!form_.progress || progress.choice != 0) return {};
    Json value = chunk(Json::array({choice(0, Json::object(), nullptr)}));
    value["prompt_progress"] = {{"total", progress.total},
                                {"cache", progress.reused},
                                {"processed", progress.processed},
                                {"time_ms", std::llround(progress.seconds * 1000.0)}};
    return eventText({}, value);
  }

  std::string step(const ReplyStep& step) override {
    std::string text;
    std::span<const ContentToken> tokens = step.tokens;
    for (const text::ReplyEvent& event : step.events) {
      const bool content = event.kind == text::ReplyEvent::Kind::Content;
      const Json value = deltaOf(step.choice, event);
      if (value.is_null()) continue;
      Json part = choice(step.choice, value, nullptr);
      if (content && form_.logProbabilities) {
        part["logprobs"] = logProbabilitiesJson(tokens);
        tokens = {};
      }
      text += eventText({}, chunk(Json::array({part})));
    }
    if (tokens.empty()) return text;
    // Tokens of content that went out before.
    Json part = choice(step.choice, {{"content", ""}}, nullptr);
    part["logprobs"] = logProbabilitiesJson(tokens);
    return text + eventText({}, chunk(Json::array({part})));
  }

  std::string end(const ReplyEnd& end) override {
    ends_.push_back(end);
    Json value = chunk(Json::array({choice(end.choice, Json::object(), finishReason(end))}));
    if (ends_.size() == choices_.size() && !form_.streamsUsage) {
      value["timings"] = timingsJson(sumOf(ends_));
    }
    return eventText({}, value);
  }

  std::string finish() override {
    std::string text;
    if (form_.streamsUsage) {
      Json value = chunk(Json::array());
      value["usage"] = usageJson(ends_);
      value["timings"] = timingsJson(sumOf(ends_));
      text = eventText({}, value);
    }
    return text + "data: [DONE]\n\n";
  }

  std::string error(const ApiError& error) override {
    return "data: " + errorBody(Dialect::OpenAi, error) + "\n\n";
  }

  std::string whole(std::span<const WholeReply> replies) override {
    Json choices = Json::array();
    for (const WholeReply& reply : replies) {
      ends_.push_back(reply.end);
      Json value = {{"index", reply.end.choice},
                    {"message", messageOf(reply)},
                    {"logprobs", nullptr},
                    {"finish_reason", finishReason(reply.end)}};
      if (form_.logProbabilities) value["logprobs"] = logProbabilitiesJson(reply.tokens);
      choices.push_back(std::move(value));
    }
    Json value = frame("chat.completion", std::move(choices));
    value["usage"] = usageJson(ends_);
    value["timings"] = timingsJson(sumOf(ends_));
    return jsonText(value);
  }

 private:
  struct Choice {
    size_t calls = 0;
  };

  Json frame(const char* object, Json choices) const {
    return {{"id", facts_.id},
            {"object", object},
            {"created", facts_.created},
            {"model", facts_.model},
            {"choices", std::move(choices)}};
  }

  Json chunk(Json choices) const {
    Json value = frame("chat.completion.chunk", std::move(choices));
    if (form_.streamsUsage) value["usage"] = nullptr;
    return value;
  }

  static Json choice(size_t index, Json delta, const Json& reason) {
    return {{"index", index},
            {"delta", std::move(delta)},
            {"logprobs", nullptr},
            {"finish_reason", reason}};
  }

  std::string delta(size_t index, Json value) const {
    return eventText({}, chunk(Json::array({choice(index, std::move(value), nullptr)})));
  }

  // Null for what has no delta.
  Json deltaOf(size_t index, const text::ReplyEvent& event) {
    using Kind = text::ReplyEvent::Kind;
    switch (event.kind) {
      case Kind::Reasoning:
        return {{"reasoning_content", event.text}};
      case Kind::Content:
        return {{"content", event.text}};
      case Kind::CallBegin: {
        const Json function = {{"name", event.text}, {"arguments", ""}};
        return callDelta({{"index", choices_[index].calls++},
                          {"id", randomId("call_")},
                          {"type", "function"},
                          {"function", function}});
      }
      case Kind::CallArguments:
        return callDelta(
            {{"index", choices_[index].calls - 1}, {"function", {{"arguments", event.text}}}});
      case Kind::CallEnd:
        break;
    }
    return nullptr;
  }

  static Json callDelta(Json call) { return {{"tool_calls", Json::array({std::move(call)})}}; }

  static Json messageOf(const WholeReply& reply) {
    Json message = {{"role", "assistant"}, {"content", reply.content}};
    if (!reply.reasoning.empty()) message["reasoning_content"] = reply.reasoning;
    if (reply.calls.empty()) return message;
    if (reply.content.empty()) message["content"] = nullptr;
    Json calls = Json::array();
    for (const WholeReply::Call& call : reply.calls) {
      const Json function = {{"name", call.name}, {"arguments", call.arguments}};
      calls.push_back({{"id", randomId("call_")}, {"type", "function"}, {"function", function}});
    }
    message["tool_calls"] = std::move(calls);
    return message;
  }

  ReplyFacts facts_;
  ReplyForm form_;
  std::vector<Choice> choices_;
  std::vector<ReplyEnd> ends_;
};

}  // namespace

Json logProbabilitiesJson(std::span<const ContentToken> tokens) {
  Json content = Json::array();
  for (const ContentToken& token : tokens) {
    Json value = tokenJson(token.bytes, token.logProbability);
    value["top_logprobs"] = Json::array();
    for (const Alternative& other : token.likeliest) {
      value["top_logprobs"].push_back(tokenJson(other.bytes, other.logProbability));
    }
    content.push_back(std::move(value));
  }
  return {{"content", std::move(content)}};
}

Json usageJson(std::span<const ReplyEnd> ends, size_t sharing) {
  const Usage usage = sumOf(ends, sharing);
  size_t reasoning = 0;
  for (const ReplyEnd& end : ends) reasoning += end.reasoningTokens;
  return {{"prompt_tokens", usage.prompt},
          {"completion_tokens", usage.generated},
          {"total_tokens", usage.prompt + usage.generated},
          {"prompt_tokens_details", {{"cached_tokens", usage.reused}}},
          {"completion_tokens_details", {{"reasoning_tokens", reasoning}}}};
}

std::string_view finishReason(const ReplyEnd& end) {
  const EndReason reason = end.end.reason;
  if (reason == EndReason::Length || reason == EndReason::Context) return "length";
  return end.called ? "tool_calls" : "stop";
}

std::unique_ptr<ReplyWriter> makeOpenAiChatWriter(const ReplyFacts& facts, const ReplyForm& form) {
  return std::make_unique<OpenAiChatWriter>(facts, form);
}

}  // namespace zem::server
