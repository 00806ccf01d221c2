// SPDX-License-Identifier: Apache-2.0
#include "engine/text/reply_parser.h"

#include <array>
#include <span>
#include <utility>

#include "engine/text/chat/python_text.h"

namespace zem::text {
namespace {

constexpr std::string_view kThinkBegin = "<think>";
constexpr std::string_view kThinkEnd = "</think>";
constexpr std::string_view kCallBegin = "<tool_call>";
constexpr std::string_view kCallEnd = "</tool_call>";
constexpr std::string_view kFunctionBegin = "<function=";
constexpr std::string_view kFunctionEnd = "</function>";
constexpr std::string_view kParameterBegin = "<parameter=";
constexpr std::string_view kParameterEnd = "</parameter>";

// What ends a value. The newline in front is part of the form, and so it is of the tag:
// then nothing else has to know of it.
constexpr std::array<std::string_view, 6> kValueEnds = {
    "\n</parameter>", kParameterEnd, "\n</function>\n</tool_call>", "</function>\n</tool_call>",
    "\n</tool_call>", kCallEnd};

constexpr size_t kMostArguments = 1024;

bool isBlank(char c) { return c == ' ' || c == '\n' || c == '\t' || c == '\r'; }

size_t blanksAtFront(std::string_view text) {
  size_t count = 0;
  while (count < text.size() && isBlank(text[count])) ++count;
  return count;
}

bool hasOnlyBlanks(std::string_view text) { return blanksAtFront(text) == text.size(); }

enum class Match : uint8_t { No, Maybe, Yes };  // Maybe: more text decides

Match matchAtFront(std::string_view text, std::string_view marker) {
  if (text.size() >= marker.size()) return text.starts_with(marker) ? Match::Yes : Match::No;
  return marker.starts_with(text) ? Match::Maybe : Match::No;
}

// The first place in a text where one of `markers` is, or may be.
struct Hit {
  size_t begin;                              // the text's end when there is no such place
  const std::string_view* marker = nullptr;  // null: none, or not decided
};

Hit findFirst(std::string_view text, std::span<const std::string_view> markers) {
  for (size_t at = 0; at < text.size(); ++at) {
    at = text.find_first_of("<\n", at);
    if (at == std::string_view::npos) break;
    for (const std::string_view& marker : markers) {
      const Match match = matchAtFront(text.substr(at), marker);
      if (match != Match::No) return {at, match == Match::Yes ? &marker : nullptr};
    }
  }
  return {text.size()};
}

}  // namespace

ReplyParser::ReplyParser(ReplyOptions options, ArgumentKinds kinds)
    : options_(options),
      kinds_(std::move(kinds)),
      state_(options.thinking ? State::Thinking : State::Content),
      dropsNewlines_(options.thinking) {}

void ReplyParser::feed(std::string_view delta, std::vector<ReplyEvent>& out) {
  if (state_ == State::Finished) return;
  out_ = &out;
  held_ += delta;
  while (step()) {
  }
  held_.erase(0, at_);
  at_ = 0;
}

// Whether a part of the text was decided, so that what follows may be too.
bool ReplyParser::step() {
  switch (state_) {
    case State::Thinking:
    case State::Content:
    case State::CallText:
      return stepText();
    case State::CallOpen:
    case State::AfterFunction:
      return stepTag();
    case State::FunctionName:
      return stepName(true);
    case State::ParameterName:
      return stepName(false);
    case State::InFunction:
      return stepInFunction();
    case State::Value:
      return stepValue();
    case State::Finished:
      break;
  }
  return false;
}

std::string_view ReplyParser::take(size_t count) {
  const std::string_view text = rest().substr(0, count);
  at_ += count;
  return text;
}

// ---- Reasoning and content

void ReplyParser::enter(State state) {
  state_ = state;
  atBeginning_ = true;
  dropsNewlines_ = true;
  newlines_ = 0;
}

bool ReplyParser::stepText() {
  if (atBeginning_) {
    const size_t newlines = std::min(rest().find_first_not_of('\n'), rest().size());
    say(take(newlines));
    if (rest().empty()) return false;
    const Match begin = matchAtFront(rest(), kThinkBegin);
    const Match end = matchAtFront(rest(), kThinkEnd);
    if (begin == Match::Maybe || end == Match::Maybe) return false;
    if (begin == Match::Yes || end == Match::Yes) {
      take(begin == Match::Yes ? kThinkBegin.size() : kThinkEnd.size());
      enter(begin == Match::Yes ? State::Thinking : State::Content);
      return true;
    }
    atBeginning_ = false;
  }
  std::array<std::string_view, 2> markers;
  size_t count = 0;
  if (thinking()) markers[count++] = kThinkEnd;
  if (state_ == State::CallText) markers[count++] = kCallEnd;
  if (options_.calls) markers[count++] = kCallBegin;
  const Hit hit = findFirst(rest(), std::span(markers).first(count));
  say(take(hit.begin));
  if (hit.marker == nullptr) return false;
  take(hit.marker->size());
  enter(*hit.marker == kCallBegin ? State::CallOpen : State::Content);
  return true;
}

void ReplyParser::say(std::string_view text) {
  if (dropsNewlines_) text.remove_prefix(std::min(text.find_first_not_of('\n'), text.size()));
  if (text.empty()) return;
  dropsNewlines_ = false;
  const size_t end = text.find_last_not_of('\n') + 1;
  if (end > 0) {
    sayHeldNewlines();
    emit(textKind(), text.substr(0, end));
  }
  newlines_ += text.size() - end;
}

void ReplyParser::sayHeldNewlines() {
  if (newlines_ > 0) emit(textKind(), std::string(newlines_, '\n'));
  newlines_ = 0;
}

// ---- Calls

// Behind <tool_call> and </function>, where only a tag is expected.
bool ReplyParser::stepTag() {
  take(blanksAtFront(rest()));
  if (rest().empty()) return false;
  const bool opened = state_ == State::CallOpen;
  const std::array<std::pair<std::string_view, State>, 3> tags = {
      {{kFunctionBegin, State::FunctionName},
       {kCallEnd, State::Content},
       {kCallBegin, State::CallOpen}}};
  for (const auto& [tag, next] : tags) {
    const Match match = matchAtFront(rest(), tag);
    if (match == Match::Maybe) return false;
    if (match == Match::No) continue;
    take(tag.size());
    enter(next);
    return true;
  }
  enter(opened ? State::CallText : State::Content);
  atBeginning_ = !opened;
  return true;
}

// A name up to '>', of a function or of a parameter.
bool ReplyParser::stepName(bool isFunction) {
  const size_t end = rest().find_first_of("><\n");
  name_ += take(std::min(end, rest().size()));
  const bool closed = !rest().empty() && rest()[0] == '>';
  const bool tooLong = name_.size() > kLongestFunctionName;
  if (rest().empty() && !tooLong) return false;
  const std::string name = std::exchange(name_, {});
  if (closed && !tooLong && !(isFunction && name.empty())) {
    take(1);
    name_ = name;
    isFunction ? beginCall() : beginValue();
    return true;
  }
  if (isFunction) {
    enter(State::CallText);
    atBeginning_ = false;
    say(kFunctionBegin);
    say(name);
  } else {
    damaged_ = true;
    state_ = State::InFunction;
  }
  return true;
}

bool ReplyParser::stepInFunction() {
  constexpr std::array<std::string_view, 4> kTags = {kParameterBegin, kFunctionEnd, kCallEnd,
                                                     kCallBegin};
  const Hit hit = findFirst(rest(), kTags);
  if (!hasOnlyBlanks(take(hit.begin))) damaged_ = true;
  if (hit.marker == nullptr) return false;
  take(hit.marker->size());
  if (*hit.marker == kParameterBegin) {
    state_ = State::ParameterName;
    return true;
  }
  endCall(*hit.marker != kCallBegin);
  if (*hit.marker == kFunctionEnd) {
    state_ = State::AfterFunction;
  } else {
    enter(*hit.marker == kCallBegin ? State::CallOpen : State::Content);
  }
  return true;
}

bool ReplyParser::stepValue() {
  if (valueBegins_) {
    if (rest().empty()) return false;
    if (rest()[0] == '\n') take(1);
    valueBegins_ = false;
  }
  const Hit hit = findFirst(rest(), kValueEnds);
  addToValue(take(hit.begin));
  if (hit.marker == nullptr) return false;
  take(hit.marker->size());
  endValue(true);
  if (hit.marker->ends_with(kParameterEnd)) {
    state_ = State::InFunction;
  } else {
    endCall(false);
    enter(State::Content);
  }
  return true;
}

void ReplyParser::beginCall() {
  function_ = std::exchange(name_, {});
  damaged_ = false;
  anyArgument_ = false;
  arguments_.clear();
  state_ = State::InFunction;
  ++calls_;
  emit(Kind::CallBegin, function_);
}

void ReplyParser::endCall(bool complete) {
  emit(Kind::CallArguments, anyArgument_ ? "}" : "{}");
  emit(Kind::CallEnd, {});
  out_->back().complete = complete && !damaged_;
}

void ReplyParser::beginValue() {
  state_ = State::Value;
  valueBegins_ = true;
  value_.clear();
  kind_ = kinds_.kindOf(function_, name_);
  sink_ = Sink::Held;
  if (arguments_.size() == kMostArguments) {
    damaged_ = true;
    sink_ = Sink::Dropped;
  } else if (!arguments_.insert(name_).second) {
    sink_ = Sink::Dropped;
  } else if (kind_ == ArgumentKind::Text) {
    streamValue();
  }
}

std::string ReplyParser::argumentBegin() {
  std::string begin = (anyArgument_ ? ", " : "{") + quotedJson(name_) + ": ";
  anyArgument_ = true;
  return begin;
}

// From here on the value comes as it is read: as text, without waiting for its end.
void ReplyParser::streamValue() {
  sink_ = Sink::Streamed;
  std::string begin = argumentBegin() + "\"";
  appendEscaped(std::exchange(value_, {}), begin);
  emit(Kind::CallArguments, begin);
}

void ReplyParser::addToValue(std::string_view text) {
  if (sink_ == Sink::Held) {
    value_ += text;
    if (value_.size() > options_.longestHeldArgument) streamValue();
  } else if (sink_ == Sink::Streamed) {
    std::string escaped;
    appendEscaped(text, escaped);
    emit(Kind::CallArguments, escaped);
  }
}

void ReplyParser::endValue(bool complete) {
  if (sink_ == Sink::Streamed) {
    emit(Kind::CallArguments, "\"");
  } else if (sink_ == Sink::Held && complete) {
    std::string argument = argumentBegin();
    argument += argumentJson(std::exchange(value_, {}), kind_);
    emit(Kind::CallArguments, argument);
  }
  value_.clear();
  name_.clear();
}

void ReplyParser::emit(Kind kind, std::string_view text) {
  if (text.empty() && kind != Kind::CallEnd) return;
  const bool ofText = kind == Kind::Reasoning || kind == Kind::Content;
  const size_t call = ofText ? 0 : calls_ - 1;
  const bool goesOn = !out_->empty() && out_->back().kind == kind && out_->back().call == call &&
                      kind != Kind::CallBegin && kind != Kind::CallEnd;
  if (goesOn) {
    out_->back().text += text;
  } else {
    out_->push_back({kind, std::string(text), call, true});
  }
}

void ReplyParser::finish(std::vector<ReplyEvent>& out) {
  out_ = &out;
  switch (state_) {
    case State::Thinking:
    case State::Content:
    case State::CallText:
      say(rest());
      sayHeldNewlines();
      break;
    case State::Value:
      endValue(false);
      endCall(false);
      break;
    case State::InFunction:
    case State::ParameterName:
      endCall(false);
      break;
    case State::CallOpen:
    case State::FunctionName:
    case State::AfterFunction:
    case State::Finished:
      break;
  }
  held_.clear();
  name_.clear();
  state_ = State::Finished;
}

}  // namespace zem::text
