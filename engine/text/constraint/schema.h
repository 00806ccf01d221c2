// SPDX-License-Identifier: Apache-2.0
/// \file
/// JSON schemas as rules of a grammar.
#pragma once

#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "engine/text/constraint.h"
#include "engine/text/constraint/grammar.h"
#include "engine/text/json.h"
#include "kiv/status.h"

namespace zem::text::grammar {

/// Adds the rules of the schemas of one document to a grammar.
class SchemaReader {
 public:
  /// `document` is what references are relative to. `where` is its name in messages.
  /// All arguments outlive the reader.
  SchemaReader(const Json& document, std::string where, const ConstraintLimits& limits,
               Grammar& grammar);
  ~SchemaReader();
  SchemaReader(const SchemaReader&) = delete;
  SchemaReader& operator=(const SchemaReader&) = delete;

  /// The rule of the whole document.
  RuleId readDocument();

  /// The rule of an argument of a tool call whose schema is a part of the document:
  /// strings are raw text. `path` is its place, such as "/properties/a".
  RuleId readArgument(const Json& schema, const std::string& path);

  /// What was wrong, with all keywords that are not supported. Call it after all else.
  kiv::Status status() const;

 private:
  class State;
  std::unique_ptr<State> state_;
};

}  // namespace zem::text::grammar
