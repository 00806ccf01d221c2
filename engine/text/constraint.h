// SPDX-License-Identifier: Apache-2.0
/// \file
/// Replies that must have a form: JSON, JSON of a schema, tool calls.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "engine/text/constraint_tokens.h"
#include "engine/text/json.h"
#include "kiv/status.h"

namespace zem::text {

namespace grammar {
struct Grammar;
struct Way;
}  // namespace grammar

/// How large a constraint may be.
struct ConstraintLimits {
  size_t depth = 64;            ///< arrays and objects inside each other
  size_t rules = 10000;         ///< schemas, and values of "enum"
  size_t patternStates = 2000;  ///< of each "pattern"
};

class ConstraintState;

/// The form of a reply. Immutable: any number of threads may use it.
class Constraint {
 public:
  ~Constraint();  ///< states keep what they need

  /// JSON that `schema` allows. `true` allows every value. Blanks may stand where JSON
  /// has them, at most 200 in a row; in front of the value newlines alone.
  ///
  /// Known keywords: `type`, `enum`, `const`, `properties`, `required`,
  /// `additionalProperties`, `items`, `minItems`, `maxItems`, `minimum`, `maximum`,
  /// `exclusiveMinimum`, `exclusiveMaximum`, `minLength`, `maxLength`, `pattern` (see
  /// PatternAutomaton), `anyOf`, `$ref` inside the document, `allOf` of one schema; those
  /// that only describe, such as `title` and `format`, are ignored. `enum` and `const`
  /// may stand beside `type`; `$ref` and `anyOf` stand alone.
  ///
  /// Not every spelling of an allowed value can be produced. Values of `enum` are spelt as
  /// Python does; names of members without escapes that they do not need, and so are
  /// strings with a `pattern`; numbers have at most 40 digits in a row and two in the
  /// exponent, bounded ones at most 18 in front of the point and behind it, and no
  /// exponent.
  ///
  /// Members that are not declared may come twice.
  ///
  /// Fails, with the place in the schema, for what is wrong or beyond `limits`, for all
  /// keywords that are not supported, by name, and where no value is allowed at all.
  static kiv::Status compile(const Json& schema, const ConstraintLimits& limits,
                             std::shared_ptr<const Constraint>& out);

  /// Calls of functions of `tools` in the form that ReplyParser reads, with newlines around.
  /// With `name`, of this function alone. With `several`, one or more calls, else one.
  /// Arguments come in any order, required ones always, undeclared ones never.
  ///
  /// Fails like compile(), and where `tools` has no such function.
  static kiv::Status compileToolCalls(const std::vector<Json>& tools, std::string_view name,
                                      bool several, const ConstraintLimits& limits,
                                      std::shared_ptr<const Constraint>& out);

  /// At the beginning of a reply.
  static ConstraintState begin(std::shared_ptr<const Constraint> constraint);

 private:
  friend class ConstraintState;
  explicit Constraint(std::unique_ptr<const grammar::Grammar> rules);

  std::unique_ptr<const grammar::Grammar> grammar_;
};

/// How far a reply has come. One thread at a time; copies are independent.
///
/// Whatever was begun can be ended. One exception: of an argument of a tool call with a
/// `pattern`, when only a text that holds `</parameter>` would match.
class ConstraintState {
 public:
  ConstraintState(const ConstraintState& other);                 ///< a copy
  ConstraintState& operator=(const ConstraintState& other);      ///< a copy
  ConstraintState(ConstraintState&& other) noexcept;             ///< leaves nothing but a husk
  ConstraintState& operator=(ConstraintState&& other) noexcept;  ///< leaves nothing but a husk
  ~ConstraintState();                                            ///< ends it

  /// Goes on with one byte. False where it is not allowed; nothing changes then.
  bool advance(uint8_t byte);
  /// Goes on with all bytes, or with none.
  bool advance(std::string_view bytes);

  /// Whether the reply may go on with `bytes`. Test a sampled token with this first; most
  /// of the time it is allowed.
  bool accepts(std::string_view bytes) const;

  /// Whether the reply may end here.
  bool complete() const;
  /// Whether nothing but blanks can follow.
  bool over() const;

  /// Sets `allowed[id]` for every token with which the reply may go on, and no other.
  /// Takes a time like reading all texts of the vocabulary: ask only when a sampled token
  /// was refused.
  void mask(const TokenTexts& tokens, std::vector<bool>& allowed) const;

 private:
  friend class Constraint;
  explicit ConstraintState(std::shared_ptr<const Constraint> constraint);

  std::shared_ptr<const Constraint> constraint_;
  std::vector<grammar::Way> ways_;
};

}  // namespace zem::text
