// SPDX-License-Identifier: Apache-2.0
/// \file
/// The keywords of JSON schemas, and the types that they speak of.
#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <string_view>

#include "engine/text/json.h"

namespace zem::text::grammar {

/// The names of the types.
inline constexpr std::array<std::string_view, 7> kTypes = {"null",   "boolean", "integer", "number",
                                                           "string", "array",   "object"};

/// Which types a schema allows.
struct Types {
  std::array<bool, kTypes.size()> allowed{};

  /// The place in kTypes; its size for a name that is none of them.
  static size_t indexOf(std::string_view name) {
    return static_cast<size_t>(std::find(kTypes.begin(), kTypes.end(), name) - kTypes.begin());
  }
  static Types all();

  bool has(std::string_view name) const { return allowed[indexOf(name)]; }
  /// Whether a value is of an allowed type.
  bool hasValue(const Json& value) const;
};

/// Whether the keyword says something of a document.
bool isAssertion(std::string_view keyword);

/// Whether it does, or only describes.
bool isKnownKeyword(std::string_view keyword);

}  // namespace zem::text::grammar
