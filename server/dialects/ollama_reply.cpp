// SPDX-License-Identifier: Apache-2.0
#include <array>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <utility>

#include "server/dialects/ollama.h"
#include "server/dialects/openai_chat.h"

namespace zem::server {
namespace {

constexpr double kNanoseconds = 1e9;

int64_t nanoseconds(double seconds) { return std::llround(seconds * kNanoseconds); }

class OllamaWriter : public ReplyWriter {
 public:
  OllamaWriter(const ReplyFacts& facts, bool generates) : facts_(facts), generates_(generates) {}

  std::string streamType() const override { return "application/x-ndjson"; }
  std::string ping() const override { return {}; }

  std::string step(const ReplyStep& step) override {
    std::string text;
    for (const text::ReplyEvent& event : step.events) text += write(event);
    return text;
  }

  std::string end(const ReplyEnd& end) override {
    return line(withEnd(frame("", "", Json::array()), end));
  }

  std::string error(const ApiError& error) override {
    return errorBody(Dialect::Ollama, error) + "\n";
  }

  std::string whole(std::span<const WholeReply> replies) override {
    const WholeReply& reply = replies.front();
    Json calls = Json::array();
    for (const WholeReply::Call& call : reply.calls) calls.push_back(callOf(call));
    return jsonText(withEnd(frame(reply.content, reply.reasoning, std::move(calls)), reply.end));
  }

  Json frame(const std::string& content, const std::string& thinking, Json calls) const {
    Json value = {{"model", facts_.model}, {"created_at", isoTime(facts_.created)}};
    if (generates_) {
      value["response"] = content;
      if (!thinking.empty()) value["thinking"] = thinking;
    } else {
      Json message = {{"role", "assistant"}, {"content", content}};
      if (!thinking.empty()) message["thinking"] = thinking;
      if (!calls.empty()) message["tool_calls"] = std::move(calls);
      value["message"] = std::move(message);
    }
    value["done"] = false;
    return value;
  }

 private:
  static std::string line(const Json& value) { return jsonText(value) + "\n"; }

  // A call goes out when it is whole.
  std::string write(const text::ReplyEvent& event) {
    using Kind = text::ReplyEvent::Kind;
    switch (event.kind) {
      case Kind::Reasoning:
        return line(frame("", event.text, Json::array()));
      case Kind::Content:
        return line(frame(event.text, "", Json::array()));
      case Kind::CallBegin:
        call_ = {event.text, {}, true};
        break;
      case Kind::CallArguments:
        call_.arguments += event.text;
        break;
      case Kind::CallEnd:
        return line(frame("", "", Json::array({callOf(call_)})));
    }
    return {};
  }

  static Json callOf(const WholeReply::Call& call) {
    return {{"function",
             {{"name", call.name}, {"arguments", Json::parse(call.arguments, nullptr, false)}}}};
  }

  static Json withEnd(Json value, const ReplyEnd& end) {
    const Usage& usage = end.end.usage;
    value["done"] = true;
    value["done_reason"] = finishReason(end) == "length" ? "length" : "stop";
    value["total_duration"] =
        nanoseconds(usage.waitedSeconds + usage.promptSeconds + usage.generateSeconds);
    value["load_duration"] = 0;
    value["prompt_eval_count"] = usage.prompt;
    value["prompt_eval_duration"] = nanoseconds(usage.promptSeconds);
    value["eval_count"] = usage.generated;
    value["eval_duration"] = nanoseconds(usage.generateSeconds);
    return value;
  }

  ReplyFacts facts_;
  bool generates_;
  WholeReply::Call call_;
};

}  // namespace

std::unique_ptr<ReplyWriter> makeOllamaWriter(const ReplyFacts& facts, bool generates) {
  return std::make_unique<OllamaWriter>(facts, generates);
}

std::string ollamaLoaded(const ReplyFacts& facts, bool generates) {
  Json value = OllamaWriter(facts, generates).frame("", "", Json::array());
  value["done"] = true;
  value["done_reason"] = "load";
  return jsonText(value);
}

std::string isoTime(int64_t secondsSince1970) {
  using std::chrono::days;
  const std::chrono::sys_seconds time{std::chrono::seconds(secondsSince1970)};
  const auto midnight = std::chrono::floor<days>(time);
  const std::chrono::year_month_day date{midnight};
  const std::chrono::hh_mm_ss clock{time - midnight};
  std::array<char, 80> text{};
  std::snprintf(text.data(), text.size(), "%04d-%02u-%02uT%02d:%02d:%02dZ", int(date.year()),
                unsigned(date.month()), unsigned(date.day()),
                static_cast<int>(clock.hours().count()), static_cast<int>(clock.minutes().count()),
                static_cast<int>(clock.seconds().count()));
  return text.data();
}

}  // namespace zem::server
