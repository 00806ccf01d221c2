// SPDX-License-Identifier: Apache-2.0
#include "engine/chat.h"

#include <algorithm>
#include <memory>
#include <span>
#include <utility>

#include "engine/engine.h"
#include "engine/text/constraint.h"

namespace zem {
namespace {

using kiv::Status;
using text::RenderedChat;

// Written in the model's place when it has thought for long enough.
constexpr const char* kEndOfThinking = "\n\nI have thought about this for long enough.\n";

class Preparation {
 public:
  Preparation(const Engine& engine, const ChatRequest& chat, PreparedChat& out)
      : engine_(engine), vocabulary_(engine.vocabulary()), chat_(chat), out_(out) {}

  Status run() {
    Status status = checkTools();
    if (status.ok()) status = render();
    if (status.ok()) status = encode();
    if (status.ok()) status = setForm();
    if (status.ok()) status = setThinking();
    if (!status.ok()) return status;
    Request& request = out_.request;
    request.sampling = chat_.sampling.over(engine_.defaultSampling(rendered_.thinking));
    request.stops = {vocabulary_.endTokens(), chat_.stopTexts, chat_.maxTokens};
    request.logProbabilities = chat_.logProbabilities;
    out_.thinking = rendered_.thinking;
    out_.reply.thinking = rendered_.thinking;
    out_.reply.calls = showsTools();
    if (showsTools()) out_.arguments = text::ArgumentKinds(chat_.tools);
    return {};
  }

 private:
  bool showsTools() const { return chat_.toolChoice != ToolChoice::None && !chat_.tools.empty(); }

  Status checkTools() const {
    if (chat_.toolChoice == ToolChoice::Required && chat_.tools.empty()) {
      return kiv::invalidFormat("a call is required, but there are no tools");
    }
    if (chat_.schema && showsTools()) {
      return kiv::invalidFormat(
          "a reply cannot both have a schema and call tools; leave one of them out");
    }
    return {};
  }

  Status render() {
    const text::ChatFormat* format = engine_.chatFormat();
    if (format == nullptr) {
      return kiv::unsupported(
          "the model's chat template is none of the known revisions; choose one by name: " +
          text::chatFormatNames());
    }
    const std::vector<text::Json> none;
    Status status = text::renderChat(*format, chat_.messages, showsTools() ? chat_.tools : none,
                                     chat_.format, rendered_);
    if (!status.ok()) return status;
    if (rendered_.images == 0 && rendered_.videos == 0) return {};
    return kiv::unsupported(std::string("found ") +
                            (rendered_.images != 0 ? "an image" : "a video") +
                            ", needed messages of text alone");
  }

  Status encode() {
    parts_.reserve(rendered_.segments.size());
    for (const text::Segment& segment : rendered_.segments) {
      parts_.push_back({segment.text, segment.control ? text::AddedTokens::Recognised
                                                      : text::AddedTokens::AsText});
    }
    Status status = vocabulary_.encode(parts_, out_.request.prompt);
    if (status.ok()) status = keepBehind(rendered_.systemSegments);
    if (status.ok()) status = keepBehind(rendered_.lastQuestion);
    if (status.ok()) keepBeforeReply();
    return status;
  }

  // Keeps a state behind so many segments, if tokens end there.
  Status keepBehind(size_t segments) {
    if (segments == 0) return {};
    std::vector<uint32_t> ids;
    Status status = vocabulary_.encode(std::span(parts_).first(segments), ids);
    const std::vector<uint32_t>& prompt = out_.request.prompt;
    const bool isPrefix =
        ids.size() < prompt.size() && std::equal(ids.begin(), ids.end(), prompt.begin());
    if (status.ok() && isPrefix && !ids.empty()) out_.request.keepAt.push_back(ids.size());
    return status;
  }

  // The turn of the reply often looks different in the next prompt: without its thinking.
  void keepBeforeReply() {
    const std::optional<uint32_t> turn = vocabulary_.idOf("<|im_start|>");
    const std::vector<uint32_t>& prompt = out_.request.prompt;
    if (!turn || !chat_.format.openReply) return;
    const auto last = std::find(prompt.rbegin(), prompt.rend(), *turn);
    if (last != prompt.rend()) {
      out_.request.keepAt.push_back(static_cast<size_t>(prompt.rend() - last) - 1);
    }
  }

  Status setForm() {
    if (chat_.toolChoice == ToolChoice::Required) {
      return text::Constraint::compileToolCalls(chat_.tools, chat_.onlyTool, chat_.severalCalls, {},
                                                out_.request.form);
    }
    return chat_.schema ? text::Constraint::compile(*chat_.schema, {}, out_.request.form)
                        : Status();
  }

  Status setThinking() {
    const auto begin = vocabulary_.idOf("<think>");
    const auto end = vocabulary_.idOf("</think>");
    if (!rendered_.thinking || !begin || !end) return {};
    ThinkingOptions thinking{*begin, *end, {}, chat_.thinkingBudget.value_or(kNoTokenLimit), true};
    Status status = vocabulary_.encode(kEndOfThinking, text::AddedTokens::AsText, thinking.closing);
    if (status.ok()) out_.request.thinking = std::move(thinking);
    return status;
  }

  const Engine& engine_;
  const Vocabulary& vocabulary_;
  const ChatRequest& chat_;
  PreparedChat& out_;
  RenderedChat rendered_;
  std::vector<text::TextPart> parts_;
};

}  // namespace

Status prepareChat(const Engine& engine, const ChatRequest& chat, PreparedChat& out) {
  out = {};
  return Preparation(engine, chat, out).run();
}

void ChatListener::onToken(const Token& token) {
  if (parser_.thinking()) ++reasoningTokens_;
  events_.clear();
  parser_.feed(token.text, events_);
  read();
  onReply(token, events_);
}

void ChatListener::onEnd(const End& end) {
  events_.clear();
  parser_.feed(end.text, events_);
  parser_.finish(events_);
  read();
  onReplyEnd(end, events_);
}

void ChatListener::read() {
  for (const text::ReplyEvent& event : events_) {
    called_ = called_ || event.kind == text::ReplyEvent::Kind::CallBegin;
  }
}

}  // namespace zem
