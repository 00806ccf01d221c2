// SPDX-License-Identifier: Apache-2.0
/// \file
/// The form of a constrained reply as a grammar: rules that refer to each other.
#pragma once

#include <cstddef>
#include <cstdint>
#include <limits>
#include <string>
#include <variant>
#include <vector>

#include "engine/text/constraint/number.h"
#include "engine/text/constraint/pattern.h"
#include "kiv/status.h"

namespace zem::text::grammar {

/// A rule, by its place in Grammar::rules.
using RuleId = uint32_t;

inline constexpr RuleId kNoRule = std::numeric_limits<RuleId>::max();
inline constexpr size_t kUnlimited = std::numeric_limits<size_t>::max();
inline constexpr size_t kMostProperties = 128;  ///< of an object; a state has a bit for each

/// One of several rules. None: nothing is allowed.
struct Choice {
  std::vector<RuleId> options;  ///< in a finished grammar never choices themselves
};

/// One of several texts.
struct Words {
  std::vector<std::string> texts;  ///< sorted, each once, none empty
};

/// A JSON number.
struct Number {
  bool integer = false;  ///< without point and exponent
  bool bounded = false;  ///< without an exponent, and within `bounds`
  NumberBounds bounds;
};

/// A JSON string, or the raw text of a tool call's argument.
struct Text {
  bool quoted = true;           ///< a JSON string
  size_t least = 0;             ///< characters
  size_t most = kUnlimited;     ///< characters
  size_t pattern = kUnlimited;  ///< of Grammar::patterns; counts characters itself
};

/// A JSON array.
struct Array {
  std::vector<RuleId> first;  ///< of the elements in front
  RuleId item = kNoRule;      ///< of the elements behind
  size_t least = 0;
  size_t most = kUnlimited;
};

/// A member of an object, or an argument of a tool call.
struct Property {
  std::string name;  ///< as it is written, without quotation marks
  RuleId value;
  bool required = false;
};

/// A JSON object. Members come in any order, each once.
struct Object {
  std::vector<Property> properties;  ///< sorted by name, at most kMostProperties
  RuleId additional = kNoRule;       ///< of members with other names; kNoRule: there are none
};

/// The arguments of a tool call, behind `<function=NAME>\n`, with what ends them.
struct Arguments {
  std::vector<Property> properties;  ///< as of an object
};

/// Rules one after the other.
struct Sequence {
  std::vector<RuleId> parts;
};

/// A rule once or more often, with a text between.
struct Repeat {
  RuleId part = kNoRule;
  std::string separator;
  size_t most = kUnlimited;
};

using Rule = std::variant<Choice, Words, Number, Text, Array, Object, Arguments, Sequence, Repeat>;

/// All rules.
struct Grammar {
  std::vector<Rule> rules;
  /// Of each rule the depth of the flattest document that it allows: how many arrays
  /// and objects lie inside each other. kUnlimited where it allows none.
  std::vector<size_t> heights;
  std::vector<PatternAutomaton> patterns;
  RuleId root = kNoRule;
  bool newlinesOnly = false;  ///< behind the root, as in front; else all blanks of JSON
  size_t mostDepth = 0;       ///< of arrays and objects inside each other
};

/// Makes options of choices flat, computes the heights, and leaves away what no document
/// can have. Fails, in the name of `where`, when the root allows nothing within the
/// grammar's depth, or a choice has more than 2,048 options.
kiv::Status finish(Grammar& grammar, const std::string& where);

}  // namespace zem::text::grammar
