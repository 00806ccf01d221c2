// SPDX-License-Identifier: Apache-2.0
#include <utility>

#include "server/dialects/openai_chat.h"
#include "server/dialects/responses.h"
#include "server/http/random_id.h"

namespace zem::server {
namespace {

// The output is a list of items: reasoning, a message, calls. A stream opens one item after the
// other; each delta names item and place.
class ResponsesWriter : public ReplyWriter {
 public:
  ResponsesWriter(const ReplyFacts& facts, Json echo) : facts_(facts), echo_(std::move(echo)) {}

  std::string begin() override {
    const Json response = frame("in_progress", nullptr);
    send("response.created", {{"response", response}});
    send("response.in_progress", {{"response", response}});
    return std::exchange(out_, {});
  }

  std::string step(const ReplyStep& step) override {
    for (const text::ReplyEvent& event : step.events) write(event);
    return std::exchange(out_, {});
  }

  std::string end(const ReplyEnd& end) override {
    const bool cut = finishReason(end) == "length";
    close(cut ? "incomplete" : "completed");
    send(cut ? "response.incomplete" : "response.completed", {{"response", ended(end)}});
    return std::exchange(out_, {});
  }

  std::string error(const ApiError& error) override {
    close("incomplete");
    Json response = frame("failed", nullptr);
    response["error"] = {{"code", error.code.empty() ? "server_error" : error.code},
                         {"message", error.message}};
    send("response.failed", {{"response", std::move(response)}});
    return std::exchange(out_, {});
  }

  std::string whole(std::span<const WholeReply> replies) override {
    const WholeReply& reply = replies.front();
    const bool cut = finishReason(reply.end) == "length";
    // The events of it are not needed.
    if (!reply.reasoning.empty()) {
      open(Item::Reasoning);
      text_ = reply.reasoning;
      close("completed");
    }
    if (!reply.content.empty()) {
      open(Item::Message);
      text_ = reply.content;
      close(cut && reply.calls.empty() ? "incomplete" : "completed");
    }
    for (const WholeReply::Call& call : reply.calls) {
      name_ = call.name;
      open(Item::Call);
      text_ = call.arguments;
      close(call.complete ? "completed" : "incomplete");
    }
    return jsonText(ended(reply.end));
  }

 private:
  enum class Item : uint8_t { None, Reasoning, Message, Call };

  void send(const char* type, const Json& members) {
    Json value = {{"type", type}, {"sequence_number", sequence_++}};
    value.update(members);
    out_ += eventText(type, value);
  }

  Json frame(const char* status, const Json& usage) const {
    Json value = {
        {"id", facts_.id},       {"object", "response"},     {"created_at", facts_.created},
        {"status", status},      {"error", nullptr},         {"incomplete_details", nullptr},
        {"model", facts_.model}, {"output", output_},        {"previous_response_id", nullptr},
        {"store", false},        {"truncation", "disabled"}, {"usage", usage},
        {"user", nullptr}};
    value.update(echo_);
    return value;
  }

  Json ended(const ReplyEnd& end) const {
    const Usage& usage = end.end.usage;
    const bool cut = finishReason(end) == "length";
    Json value = frame(cut ? "incomplete" : "completed",
                       {{"input_tokens", usage.prompt},
                        {"input_tokens_details", {{"cached_tokens", usage.reused}}},
                        {"output_tokens", usage.generated},
                        {"output_tokens_details", {{"reasoning_tokens", end.reasoningTokens}}},
                        {"total_tokens", usage.prompt + usage.generated}});
    if (cut) value["incomplete_details"] = {{"reason", "max_output_tokens"}};
    return value;
  }

  void write(const text::ReplyEvent& event) {
    using Kind = text::ReplyEvent::Kind;
    switch (event.kind) {
      case Kind::Reasoning:
        open(Item::Reasoning);
        return delta(event.text);
      case Kind::Content:
        open(Item::Message);
        return delta(event.text);
      case Kind::CallBegin:
        close("completed");
        name_ = event.text;
        return open(Item::Call);
      case Kind::CallArguments:
        return delta(event.text);
      case Kind::CallEnd:
        return close(event.complete ? "completed" : "incomplete");
    }
  }

  void open(Item item) {
    if (item_ == item) return;
    close("completed");
    item_ = item;
    text_.clear();
    id_ = randomId(item == Item::Reasoning ? "rs_" : item == Item::Message ? "msg_" : "fc_");
    callId_ = randomId("call_");
    send("response.output_item.added",
         {{"output_index", output_.size()}, {"item", itemJson("in_progress", false)}});
    if (item != Item::Call) placed("response.content_part.added", {{"part", partJson()}});
  }

  void delta(const std::string& said) {
    text_ += said;
    if (item_ == Item::Reasoning) {
      placed("response.reasoning_text.delta", {{"delta", said}});
    } else if (item_ == Item::Message) {
      placed("response.output_text.delta", {{"delta", said}, {"logprobs", Json::array()}});
    } else {
      send("response.function_call_arguments.delta",
           {{"item_id", id_}, {"output_index", output_.size()}, {"delta", said}});
    }
  }

  void close(const char* status) {
    if (item_ == Item::None) return;
    if (item_ == Item::Call) {
      send("response.function_call_arguments.done", {{"item_id", id_},
                                                     {"output_index", output_.size()},
                                                     {"name", name_},
                                                     {"arguments", text_}});
    } else {
      closePart();
    }
    Json item = itemJson(status, true);
    send("response.output_item.done", {{"output_index", output_.size()}, {"item", item}});
    output_.push_back(std::move(item));
    item_ = Item::None;
  }

  void closePart() {
    const bool thinks = item_ == Item::Reasoning;
    Json done = {{"text", text_}};
    if (!thinks) done["logprobs"] = Json::array();
    placed(thinks ? "response.reasoning_text.done" : "response.output_text.done", done);
    placed("response.content_part.done", {{"part", partJson()}});
  }

  // An event of the part that is open.
  void placed(const char* type, const Json& members) {
    Json value = {{"item_id", id_}, {"output_index", output_.size()}, {"content_index", 0}};
    value.update(members);
    send(type, value);
  }

  Json partJson() const {
    if (item_ == Item::Reasoning) return {{"type", "reasoning_text"}, {"text", text_}};
    return {{"type", "output_text"},
            {"text", text_},
            {"annotations", Json::array()},
            {"logprobs", Json::array()}};
  }

  Json itemJson(const char* status, bool full) const {
    const Json content = full ? Json::array({partJson()}) : Json::array();
    switch (item_) {
      case Item::Reasoning:
        return {{"id", id_},
                {"type", "reasoning"},
                {"status", status},
                {"summary", Json::array()},
                {"content", content}};
      case Item::Message:
        return {{"id", id_},
                {"type", "message"},
                {"status", status},
                {"role", "assistant"},
                {"content", content}};
      default:
        return {{"id", id_},          {"type", "function_call"}, {"status", status},
                {"call_id", callId_}, {"name", name_},           {"arguments", text_}};
    }
  }

  ReplyFacts facts_;
  Json echo_;
  Json output_ = Json::array();  // items that are closed
  size_t sequence_ = 0;
  Item item_ = Item::None;
  std::string id_;
  std::string callId_;
  std::string name_;
  std::string text_;  // of the open item
  std::string out_;   // to be returned
};

}  // namespace

std::unique_ptr<ReplyWriter> makeResponsesWriter(const ReplyFacts& facts, Json echo) {
  return std::make_unique<ResponsesWriter>(facts, std::move(echo));
}

}  // namespace zem::server
