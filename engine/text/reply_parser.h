// SPDX-License-Identifier: Apache-2.0
/// \file
/// A reply of the model, taken apart while it comes: reasoning, content, tool calls.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <unordered_set>
#include <vector>

#include "engine/text/reply_arguments.h"

namespace zem::text {

/// The longest name of a function that a call may have, in bytes.
inline constexpr size_t kLongestFunctionName = 128;

/// One thing that a reply said.
struct ReplyEvent {
  /// What it is.
  enum class Kind : uint8_t {
    Reasoning,      ///< `text` goes on with the reasoning
    Content,        ///< `text` goes on with the content
    CallBegin,      ///< a call of the function `text`
    CallArguments,  ///< `text` goes on with the call's arguments, JSON text of an object
    CallEnd         ///< the arguments are whole JSON now
  };
  Kind kind = Kind::Content;  ///< what it is
  std::string text;           ///< empty for CallEnd only
  size_t call = 0;            ///< of calls: which, from 0
  /// Of CallEnd: false for a call that was malformed, or that the end of the reply cut.
  /// Its arguments are valid JSON nevertheless, but some may be missing, and the last
  /// text may be cut.
  bool complete = true;

  bool operator==(const ReplyEvent&) const = default;  ///< all members equal
};

/// How a reply is read.
struct ReplyOptions {
  bool thinking = false;  ///< begins inside a think block; see RenderedChat::thinking
  bool calls = true;      ///< `<tool_call>` begins a call; else it is text
  /// An argument of another kind than text is held back until it is whole, or longer
  /// than so many bytes: it is text then.
  size_t longestHeldArgument = size_t{1} << 20;
};

/// Reads a reply of the form
///
///     REASONING
///     </think>
///
///     CONTENT
///
///     <tool_call>
///     <function=NAME>
///     <parameter=KEY>
///     VALUE
///     </parameter>
///     </function>
///     </tool_call>
///
/// in which everything may be missing and calls may follow each other.
///
/// - Newlines around reasoning, content and calls belong to the form; all other text is
///   passed on, newlines at the end of a reply too. A value loses one newline at each end.
/// - `<think>` and `</think>` count where a text begins: at the start of the reply, behind
///   each other, behind a call. Inside thinking `</think>` counts everywhere, and
///   `<tool_call>` ends thinking too.
/// - Each event comes as soon as the text seen decides it. However a reply is cut into
///   deltas, the events are the same when neighbours of one kind are joined.
/// - Of a malformed call, text that stands where `<function=NAME>` should is content;
///   text between the tags of a call is dropped. `</tool_call>` ends an argument that is
///   not closed. Of an argument that occurs twice, the first counts.
/// - Cost is linear in the length of the reply. At most 256 bytes are held back, or one
///   argument; see ReplyOptions::longestHeldArgument. And the names of a call's
///   arguments are kept, at most 1,024.
///
/// One thread at a time.
class ReplyParser {
 public:
  explicit ReplyParser(ReplyOptions options = {}, ArgumentKinds kinds = {});

  /// Goes on with `delta`, UTF-8 that may be cut anywhere; events are put at the end of
  /// `out`, and go on with its last one where they can. Events hold whole characters
  /// when deltas do.
  void feed(std::string_view delta, std::vector<ReplyEvent>& out);

  /// The reply is over: what was held back comes, and a call that is open ends. Further
  /// calls do nothing.
  void finish(std::vector<ReplyEvent>& out);

  /// Whether the reply is inside its reasoning.
  bool thinking() const { return state_ == State::Thinking; }

  /// Bytes held back.
  size_t held() const { return held_.size() + name_.size() + value_.size(); }

 private:
  enum class State : uint8_t {
    Thinking,
    Content,
    CallOpen,       // behind <tool_call>
    CallText,       // inside a call without a function
    FunctionName,   // behind <function=
    InFunction,     // between arguments
    ParameterName,  // behind <parameter=
    Value,
    AfterFunction,  // behind </function>
    Finished
  };
  enum class Sink : uint8_t { Held, Streamed, Dropped };  // of a value
  using Kind = ReplyEvent::Kind;

  bool step();
  bool stepText();
  bool stepTag();
  bool stepName(bool isFunction);
  bool stepInFunction();
  bool stepValue();
  std::string_view rest() const { return std::string_view(held_).substr(at_); }
  std::string_view take(size_t count);

  void enter(State state);
  void say(std::string_view text);
  void sayHeldNewlines();
  Kind textKind() const { return thinking() ? Kind::Reasoning : Kind::Content; }

  void beginCall();
  void endCall(bool complete);
  void beginValue();
  void addToValue(std::string_view text);
  void streamValue();
  void endValue(bool complete);
  std::string argumentBegin();
  void emit(Kind kind, std::string_view text);

  ReplyOptions options_;
  ArgumentKinds kinds_;
  State state_;
  std::vector<ReplyEvent>* out_ = nullptr;
  std::string held_;  // text that is not decided yet, from at_ on
  size_t at_ = 0;

  bool atBeginning_ = true;     // of a text: nothing but newlines so far
  bool dropsNewlines_ = false;  // at the beginning of a text
  size_t newlines_ = 0;         // at the end of a text, held back

  size_t calls_ = 0;  // begun so far
  bool damaged_ = false;
  std::string function_;
  std::string name_;  // of a function or an argument, so far
  std::unordered_set<std::string> arguments_;
  bool anyArgument_ = false;  // was shown
  bool valueBegins_ = false;
  Sink sink_ = Sink::Held;
  ArgumentKind kind_ = ArgumentKind::Typed;
  std::string value_;
};

}  // namespace zem::text
