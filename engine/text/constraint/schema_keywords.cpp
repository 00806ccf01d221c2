// SPDX-License-Identifier: Apache-2.0
#include "engine/text/constraint/schema_keywords.h"

#include <nlohmann/json.hpp>

namespace zem::text::grammar {
namespace {

constexpr std::array<std::string_view, 19> kAssertions = {"type",
                                                          "enum",
                                                          "const",
                                                          "properties",
                                                          "required",
                                                          "additionalProperties",
                                                          "items",
                                                          "minItems",
                                                          "maxItems",
                                                          "minimum",
                                                          "maximum",
                                                          "exclusiveMinimum",
                                                          "exclusiveMaximum",
                                                          "minLength",
                                                          "maxLength",
                                                          "pattern",
                                                          "anyOf",
                                                          "allOf",
                                                          "$ref"};
constexpr std::array<std::string_view, 15> kDescriptions = {
    "title",      "description", "default",   "examples",        "format",
    "$schema",    "$id",         "$comment",  "$defs",           "definitions",
    "deprecated", "readOnly",    "writeOnly", "contentEncoding", "contentMediaType"};

template <size_t Count>
bool isIn(const std::array<std::string_view, Count>& names, std::string_view name) {
  return std::find(names.begin(), names.end(), name) != names.end();
}

std::string_view typeOf(const Json& value) {
  if (value.is_null()) return "null";
  if (value.is_boolean()) return "boolean";
  if (value.is_string()) return "string";
  if (value.is_array()) return "array";
  if (value.is_object()) return "object";
  return value.is_number_float() ? "number" : "integer";
}

}  // namespace

Types Types::all() {
  Types types;
  types.allowed.fill(true);
  return types;
}

bool Types::hasValue(const Json& value) const {
  const std::string_view type = typeOf(value);
  return has(type) || (type == "integer" && has("number"));
}

bool isAssertion(std::string_view keyword) { return isIn(kAssertions, keyword); }

bool isKnownKeyword(std::string_view keyword) {
  return isAssertion(keyword) || isIn(kDescriptions, keyword) || keyword.starts_with("x-");
}

}  // namespace zem::text::grammar
