// SPDX-License-Identifier: Apache-2.0
#include <algorithm>
#include <utility>

#include "server/dialects/anthropic.h"
#include "server/http/random_id.h"

namespace zem::server {
namespace {

class AnthropicWriter : public ReplyWriter {
 public:
  AnthropicWriter(const ReplyFacts& facts, std::vector<std::string> stopTexts)
      : facts_(facts), stopTexts_(std::move(stopTexts)) {}

  std::string ping() const override { return eventText("ping", {{"type", "ping"}}); }

  std::string begin() override {
    Json message = frame(Json::array());
    message["usage"] = {{"input_tokens", facts_.promptTokens},
                        {"cache_creation_input_tokens", 0},
                        {"cache_read_input_tokens", 0},
                        {"output_tokens", 0}};
    send({{"type", "message_start"}, {"message", std::move(message)}});
    return std::exchange(out_, {});
  }

  std::string step(const ReplyStep& step) override {
    for (const text::ReplyEvent& event : step.events) write(event);
    return std::exchange(out_, {});
  }

  std::string end(const ReplyEnd& end) override {
    const Json delta = {{"stop_reason", reasonOfEnd(end)}, {"stop_sequence", stopSequence(end)}};
    close();
    send({{"type", "message_delta"}, {"delta", delta}, {"usage", usage(end)}});
    return std::exchange(out_, {});
  }

  std::string finish() override {
    send({{"type", "message_stop"}});
    return std::exchange(out_, {});
  }

  std::string error(const ApiError& error) override {
    return "event: error\ndata: " + errorBody(Dialect::Anthropic, error) + "\n\n";
  }

  std::string whole(std::span<const WholeReply> replies) override {
    const WholeReply& reply = replies.front();
    Json content = Json::array();
    if (!reply.reasoning.empty()) {
      content.push_back({{"type", "thinking"}, {"thinking", reply.reasoning}, {"signature", ""}});
    }
    if (!reply.content.empty()) content.push_back({{"type", "text"}, {"text", reply.content}});
    for (const WholeReply::Call& call : reply.calls) {
      content.push_back({{"type", "tool_use"},
                         {"id", randomId("toolu_")},
                         {"name", call.name},
                         {"input", Json::parse(call.arguments, nullptr, false)}});
    }
    Json message = frame(std::move(content));
    message["stop_reason"] = reasonOfEnd(reply.end);
    message["stop_sequence"] = stopSequence(reply.end);
    message["usage"] = usage(reply.end);
    return jsonText(message);
  }

 private:
  enum class Block : uint8_t { None, Thinking, Text, Call };

  void send(const Json& value) {
    out_ += eventText(value.at("type").get_ref<const std::string&>(), value);
  }

  Json frame(Json content) const {
    return {{"id", facts_.id},
            {"type", "message"},
            {"role", "assistant"},
            {"model", facts_.model},
            {"content", std::move(content)},
            {"stop_reason", nullptr},
            {"stop_sequence", nullptr}};
  }

  void write(const text::ReplyEvent& event) {
    using Kind = text::ReplyEvent::Kind;
    switch (event.kind) {
      case Kind::Reasoning:
        open(Block::Thinking, {{"type", "thinking"}, {"thinking", ""}, {"signature", ""}});
        return delta({{"type", "thinking_delta"}, {"thinking", event.text}});
      case Kind::Content:
        open(Block::Text, {{"type", "text"}, {"text", ""}});
        return delta({{"type", "text_delta"}, {"text", event.text}});
      case Kind::CallBegin:
        close();
        return open(Block::Call, {{"type", "tool_use"},
                                  {"id", randomId("toolu_")},
                                  {"name", event.text},
                                  {"input", Json::object()}});
      case Kind::CallArguments:
        return delta({{"type", "input_json_delta"}, {"partial_json", event.text}});
      case Kind::CallEnd:
        return close();
    }
  }

  void open(Block block, Json content) {
    if (block_ == block) return;
    close();
    block_ = block;
    send({{"type", "content_block_start"},
          {"index", index_},
          {"content_block", std::move(content)}});
  }

  void delta(Json value) {
    send({{"type", "content_block_delta"}, {"index", index_}, {"delta", std::move(value)}});
  }

  void close() {
    if (block_ == Block::None) return;
    if (block_ == Block::Thinking) delta({{"type", "signature_delta"}, {"signature", ""}});
    block_ = Block::None;
    send({{"type", "content_block_stop"}, {"index", index_++}});
  }

  static std::string_view reasonOfEnd(const ReplyEnd& end) {
    switch (end.end.reason) {
      case EndReason::Length:
      case EndReason::Context:
        return "max_tokens";
      case EndReason::StopText:
        return "stop_sequence";
      default:
        return end.called ? "tool_use" : "end_turn";
    }
  }

  Json stopSequence(const ReplyEnd& end) const {
    const auto& which = end.end.stopText;
    return which && *which < stopTexts_.size() ? Json(stopTexts_[*which]) : Json();
  }

  static Json usage(const ReplyEnd& end) {
    const Usage& usage = end.end.usage;
    return {{"input_tokens", usage.prompt - std::min(usage.prompt, usage.reused)},
            {"cache_creation_input_tokens", 0},
            {"cache_read_input_tokens", usage.reused},
            {"output_tokens", usage.generated}};
  }

  ReplyFacts facts_;
  std::vector<std::string> stopTexts_;
  Block block_ = Block::None;
  size_t index_ = 0;  // of the block
  std::string out_;   // to be returned
};

}  // namespace

std::unique_ptr<ReplyWriter> makeAnthropicWriter(const ReplyFacts& facts,
                                                 std::vector<std::string> stopTexts) {
  return std::make_unique<AnthropicWriter>(facts, std::move(stopTexts));
}

}  // namespace zem::server
