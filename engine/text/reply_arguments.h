// SPDX-License-Identifier: Apache-2.0
/// \file
/// Arguments of tool calls: replies hold them as text, programs want them as JSON.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "engine/text/json.h"

namespace zem::text {

/// What the text of an argument stands for.
enum class ArgumentKind : uint8_t {
  Text,        ///< itself, whatever it looks like
  TextOrNull,  ///< null for the words null and None, else itself
  Typed        ///< JSON where it is some, else itself
};

/// The kinds of the arguments of a request's tools.
class ArgumentKinds {
 public:
  /// Every argument is of the kind Typed.
  ArgumentKinds() = default;

  /// Reads the schemas of `tools`, as readTools() gives them. An argument whose schema
  /// allows strings alone is Text. Tools and schemas that are odd are passed over, and
  /// of a function that occurs twice the first counts. Where there are thousands of
  /// schemas, the later ones count as unknown. Never fails.
  explicit ArgumentKinds(const std::vector<Json>& tools);

  /// The kind of an argument with this schema, whose references are relative to `root`.
  static ArgumentKind kindOfSchema(const Json& schema, const Json& root);

  /// The kind of one argument; Typed where nothing is known. Any thread.
  ArgumentKind kindOf(const std::string& function, const std::string& argument) const;

 private:
  using Arguments = std::unordered_map<std::string, ArgumentKind>;
  std::unordered_map<std::string, Arguments> functions_;
};

/// The JSON text of an argument. JSON in `text` stays as it is spelt, but for blanks
/// around and for Python's True, False and None. Valid when `text` is UTF-8; nested at
/// most kMaxJsonDepth deep. Pure, any thread.
std::string argumentJson(std::string_view text, ArgumentKind kind);

}  // namespace zem::text
