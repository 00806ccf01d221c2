// SPDX-License-Identifier: Apache-2.0
#include "engine/text/chat_renderer.h"

#include <array>
#include <string_view>
#include <utility>

#include "engine/text/chat/content.h"
#include "engine/text/chat/python_text.h"

namespace zem::text {
namespace {

using kiv::Status;

constexpr std::string_view kReasoningEnd = "</think>";

constexpr std::string_view kToolsBegin =
    "# Tools\n\nYou have access to the following functions:\n\n<tools>";
constexpr std::string_view kToolsEnd =
    "\n</tools>\n\nIf you choose to call a function ONLY reply in the following format with NO "
    "suffix:\n\n<tool_call>\n<function=example_function_name>\n<parameter=example_parameter_1>\n"
    "value_1\n</parameter>\n<parameter=example_parameter_2>\nThis is the value for the second "
    "parameter\nthat can span\nmultiple lines\n</parameter>\n</function>\n</tool_call>\n\n"
    "<IMPORTANT>\nReminder:\n- Function calls MUST follow the specified format: an inner "
    "<function=...></function> block must be nested within <tool_call></tool_call> XML tags\n- "
    "Required parameters MUST be specified\n- You may provide optional reasoning for your function "
    "call in natural language BEFORE the function call, but NOT after\n- If there is no function "
    "call available, answer the question like normal with your current knowledge and do not tell "
    "the user about function calls\n</IMPORTANT>";

Status refused(std::string message) { return {kiv::StatusCode::InvalidFormat, std::move(message)}; }

Status refused(size_t index, const std::string& reason) {
  return refused("messages[" + std::to_string(index) + "]: " + reason);
}

std::string_view withoutNewlinesAtFront(std::string_view text) {
  const size_t first = text.find_first_not_of('\n');
  return first == std::string_view::npos ? std::string_view() : text.substr(first);
}

std::string_view withoutNewlinesAtEnd(std::string_view text) {
  return text.substr(0, text.find_last_not_of('\n') + 1);
}

std::string_view behindLast(std::string_view text, std::string_view marker) {
  const size_t at = text.rfind(marker);
  return at == std::string_view::npos ? text : text.substr(at + marker.size());
}

// The segments as they grow. Neighbours of one kind are one segment, but at marks.
class Prompt {
 public:
  explicit Prompt(bool trustText) : trustText_(trustText) {}

  // Text of the template.
  void control(std::string_view text) { add(text, true); }
  // Text of a client.
  void plain(std::string_view text) { add(text, trustText_); }
  // A part of a content's text.
  void content(const Content& content, std::string_view part) {
    auto at = static_cast<size_t>(part.data() - content.text.data());
    const size_t end = at + part.size();
    const std::string_view whole = content.text;
    for (const Content::Range& marker : content.markers) {
      if (marker.begin < at || marker.end > end) continue;
      plain(whole.substr(at, marker.begin - at));
      control(whole.substr(marker.begin, marker.end - marker.begin));
      at = marker.end;
    }
    plain(whole.substr(at, end - at));
  }
  // The next text begins a segment. Returns the segment's index.
  size_t mark() {
    begins_ = true;
    return segments_.size();
  }
  std::vector<Segment> take() { return std::move(segments_); }

 private:
  void add(std::string_view text, bool control) {
    if (text.empty()) return;
    if (begins_ || segments_.empty() || segments_.back().control != control) {
      segments_.push_back({{}, control});
    }
    segments_.back().text += text;
    begins_ = false;
  }

  bool trustText_;
  bool begins_ = false;
  std::vector<Segment> segments_;
};

// A message with its content joined, and without blanks around.
struct Turn {
  const Message* message;
  size_t index;  // in the request
  Content content;
  std::string_view text() const { return pythonStrip(content.text); }
};

// What an assistant's turn shows.
struct Reply {
  std::string_view reasoning;
  std::string_view content;
};

class Renderer {
 public:
  Renderer(const ChatFormat& format, const std::vector<Json>& tools, const RenderOptions& options)
      : format_(format), tools_(tools), options_(options), prompt_(options.trustText) {}

  Status render(const std::vector<Message>& messages, RenderedChat& out) {
    if (Status status = checkEffort(); !status.ok()) return status;
    if (messages.empty()) return refused("messages: the list is empty, give at least one message");
    if (Status status = readTurns(messages); !status.ok()) return status;
    if (Status status = findLastQuestion(); !status.ok()) return status;
    renderSystem();
    out.systemSegments = prompt_.mark();
    for (size_t i = 0; i < turns_.size(); ++i) {
      if (i == lastQuestion_) out.lastQuestion = prompt_.mark();
      renderTurn(i);
    }
    if (options_.openReply) out.thinking = renderOpening();
    out.segments = prompt_.take();
    out.images = media_.images;
    out.videos = media_.videos;
    return {};
  }

 private:
  Status checkEffort() const;
  Status readTurns(const std::vector<Message>& messages);
  Status readSystem(const Message& message, size_t index);
  Status findLastQuestion();
  void renderSystem();
  void renderTurn(size_t at);
  void renderAssistant(size_t at);
  void renderCall(const ToolCall& call);
  void renderToolAnswer(size_t at);
  bool renderOpening();
  Reply splitReply(const Turn& turn) const;
  bool showsThinking(size_t at, std::string_view reasoning) const;
  bool isToolAnswer(size_t at) const {
    return at < turns_.size() && turns_[at].message->role == Role::Tool;
  }

  const ChatFormat& format_;
  const std::vector<Json>& tools_;
  const RenderOptions& options_;
  Prompt prompt_;
  MediaCount media_;
  bool hasSystem_ = false;
  std::string system_;
  std::vector<Turn> turns_;  // all but the system's
  size_t lastQuestion_ = 0;
};

Status Renderer::checkEffort() const {
  const std::string& effort = options_.reasoningEffort;
  if (!format_.knowsEffort || effort.empty() || effort == "xhigh" || effort == "high") return {};
  if (effort == "medium" || effort == "low") {
    return {kiv::StatusCode::Unsupported, "reasoning_effort: the wording that asks " +
                                              std::string(format_.name) + " for " + effort +
                                              " effort is not known here, leave it out"};
  }
  return refused("reasoning_effort: found " + quotedStart(effort) +
                 ", expected xhigh, high, medium or low");
}

Status Renderer::readSystem(const Message& message, size_t index) {
  if (!options_.mergeSystem && message.role == Role::Developer) {
    return refused(index, "the role developer is not one of the model's, use system");
  }
  if (!options_.mergeSystem && index != 0) {
    return refused(index, "a system message must be the first of all messages");
  }
  for (const ContentPart& part : message.content) {
    if (part.kind == ContentPart::Kind::Text) continue;
    const bool image = part.kind == ContentPart::Kind::Image;
    return refused(index, std::string("a ") + std::string(nameOf(message.role)) +
                              " message cannot hold " + (image ? "images" : "videos"));
  }
  const Content content = Content::of(message.content, false, media_);
  const std::string_view text = pythonStrip(content.text);
  if (!system_.empty() && !text.empty()) system_ += "\n\n";
  system_ += text;
  hasSystem_ = true;
  return {};
}

Status Renderer::readTurns(const std::vector<Message>& messages) {
  for (size_t i = 0; i < messages.size(); ++i) {
    const Message& message = messages[i];
    if (message.role == Role::System || message.role == Role::Developer) {
      if (Status status = readSystem(message, i); !status.ok()) return status;
      continue;
    }
    turns_.push_back({&message, i, Content::of(message.content, options_.numberMedia, media_)});
  }
  return {};
}

// A question is a user's message that is not the answer of a tool in a user's clothes.
Status Renderer::findLastQuestion() {
  for (size_t i = turns_.size(); i-- > 0;) {
    if (turns_[i].message->role != Role::User) continue;
    const std::string_view text = turns_[i].text();
    if (text.starts_with("<tool_response>") && text.ends_with("</tool_response>")) continue;
    lastQuestion_ = i;
    return {};
  }
  return refused("messages: none of them is a question of the user, add one with the role user");
}

void Renderer::renderSystem() {
  if (tools_.empty()) {
    if (!hasSystem_ || (format_.omitsEmptySystem && system_.empty())) return;
    prompt_.control("<|im_start|>system\n");
    prompt_.plain(system_);
    prompt_.control("<|im_end|>\n");
    return;
  }
  prompt_.control("<|im_start|>system\n");
  prompt_.control(kToolsBegin);
  for (const Json& tool : tools_) {
    prompt_.control("\n");
    prompt_.plain(pythonJson(tool));
  }
  prompt_.control(kToolsEnd);
  if (!system_.empty()) {
    prompt_.control("\n\n");
    prompt_.plain(system_);
  }
  prompt_.control("<|im_end|>\n");
}

void Renderer::renderTurn(size_t at) {
  const Turn& turn = turns_[at];
  if (turn.message->role == Role::Assistant) {
    renderAssistant(at);
  } else if (turn.message->role == Role::Tool) {
    renderToolAnswer(at);
  } else {
    prompt_.control("<|im_start|>user\n");
    prompt_.content(turn.content, turn.text());
    prompt_.control("<|im_end|>\n");
  }
}

Reply Renderer::splitReply(const Turn& turn) const {
  Reply reply{{}, turn.text()};
  if (turn.message->reasoning) {
    reply.reasoning = *turn.message->reasoning;
  } else if (const size_t end = reply.content.find(kReasoningEnd);
             format_.splitsContent && end != std::string_view::npos) {
    const std::string_view before = withoutNewlinesAtEnd(reply.content.substr(0, end));
    reply.reasoning = withoutNewlinesAtFront(behindLast(before, "<think>"));
    reply.content = withoutNewlinesAtFront(behindLast(reply.content, kReasoningEnd));
  }
  reply.reasoning = pythonStrip(reply.reasoning);
  return reply;
}

bool Renderer::showsThinking(size_t at, std::string_view reasoning) const {
  if (options_.omitEmptyThinking && reasoning.empty()) return false;
  if (at > lastQuestion_) return true;
  switch (format_.history) {
    case ThinkHistory::AllWhenAsked:
      return options_.preserveThinking.value_or(false);
    case ThinkHistory::AllUnlessRefused:
      return options_.preserveThinking.value_or(true);
    case ThinkHistory::LastTurn:
      break;
  }
  return false;
}

void Renderer::renderAssistant(size_t at) {
  const Turn& turn = turns_[at];
  const Reply reply = splitReply(turn);
  prompt_.control("<|im_start|>assistant\n");
  if (showsThinking(at, reply.reasoning)) {
    prompt_.control("<think>\n");
    // A reasoning that stands inside the content may hold places for images.
    if (turn.message->reasoning) {
      prompt_.plain(reply.reasoning);
    } else if (!reply.reasoning.empty()) {
      prompt_.content(turn.content, reply.reasoning);
    }
    prompt_.control("\n</think>\n\n");
  }
  if (!reply.content.empty()) prompt_.content(turn.content, reply.content);
  bool separate = !pythonStrip(reply.content).empty();
  for (size_t i = 0; i < turn.message->calls.size(); ++i) {
    if (i > 0) {
      prompt_.control("\n");
    } else if (separate) {
      prompt_.control("\n\n");
    }
    renderCall(turn.message->calls[i]);
  }
  prompt_.control("<|im_end|>\n");
}

void Renderer::renderCall(const ToolCall& call) {
  prompt_.control("<tool_call>\n<function=");
  prompt_.plain(call.name);
  prompt_.control(">\n");
  for (const auto& [name, value] : call.arguments.items()) {
    prompt_.control("<parameter=");
    prompt_.plain(name);
    prompt_.control(">\n");
    const bool asJson = format_.jsonArguments && !value.is_string();
    prompt_.plain(asJson ? pythonJson(value) : pythonText(value));
    prompt_.control("\n</parameter>\n");
  }
  prompt_.control("</function>\n</tool_call>");
}

// Answers in a row share one turn.
void Renderer::renderToolAnswer(size_t at) {
  const bool first = at == 0 && !hasSystem_;
  if (!first && (at == 0 || !isToolAnswer(at - 1))) prompt_.control("<|im_start|>user");
  prompt_.control("\n<tool_response>\n");
  prompt_.content(turns_[at].content, turns_[at].text());
  prompt_.control("\n</tool_response>");
  if (!isToolAnswer(at + 1)) prompt_.control("<|im_end|>\n");
}

bool Renderer::renderOpening() {
  const bool thinking = options_.thinking.value_or(format_.thinksUnlessTold);
  prompt_.control("<|im_start|>assistant\n");
  prompt_.control(thinking ? "<think>\n" : "<think>\n\n</think>\n\n");
  return thinking;
}

}  // namespace

std::string RenderedChat::text() const {
  std::string all;
  for (const Segment& segment : segments) all += segment.text;
  return all;
}

Status renderChat(const ChatFormat& format, const std::vector<Message>& messages,
                  const std::vector<Json>& tools, const RenderOptions& options, RenderedChat& out) {
  out = {};
  RenderedChat rendered;
  Status status = Renderer(format, tools, options).render(messages, rendered);
  if (status.ok()) out = std::move(rendered);
  return status;
}

}  // namespace zem::text
