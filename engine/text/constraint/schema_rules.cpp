// SPDX-License-Identifier: Apache-2.0
// The values and the types of one schema as rules.
#include <algorithm>
#include <nlohmann/json.hpp>
#include <utility>

#include "engine/text/chat/python_text.h"
#include "engine/text/constraint/schema_state.h"

namespace zem::text::grammar {
namespace {

using kiv::Status;
using kiv::StatusCode;

constexpr size_t kLargestCount = 1'000'000'000;
constexpr size_t kMostPatterns = 64;
const Json kAny = true;

std::string escapedStep(std::string_view name) {
  std::string text = "/";
  for (const char c : name) {
    if (c == '~') {
      text += "~0";
    } else if (c == '/') {
      text += "~1";
    } else {
      text += c;
    }
  }
  return text;
}

std::string inner(std::string_view key) {
  std::string text;
  appendEscaped(key, text);
  return text;
}

}  // namespace

// ---- Values

void SchemaReader::State::readValues(const Json& schema, const std::string& path,
                                     const Types& types, std::vector<RuleId>& options) {
  const std::string keyword = schema.contains("enum") ? "enum" : "const";
  checkAlone(schema, path, keyword, true);
  const Json& value = schema.at(keyword);
  if (keyword == "enum" && !value.is_array()) return failExpected(path + "/enum", "a list", value);
  std::vector<const Json*> values;
  if (keyword == "const") {
    values.push_back(&value);
  } else {
    for (const Json& each : value) values.push_back(&each);
  }
  addValues(values, types, options);
}

void SchemaReader::State::addValues(const std::vector<const Json*>& values, const Types& types,
                                    std::vector<RuleId>& options) {
  Words words;
  for (const Json* value : values) {
    if (!types.hasValue(*value)) continue;
    if (value->is_structured()) {
      options.push_back(structured(*value));
    } else {
      words.texts.push_back(pythonJson(*value));
    }
    if (++values_ > limits_.rules) {
      return fail("", "has more than " + std::to_string(limits_.rules) + " values",
                  StatusCode::Unsupported);
    }
  }
  if (!words.texts.empty()) options.push_back(add(sorted(std::move(words))));
}

Words SchemaReader::State::sorted(Words words) {
  std::sort(words.texts.begin(), words.texts.end());
  words.texts.erase(std::unique(words.texts.begin(), words.texts.end()), words.texts.end());
  return words;
}

RuleId SchemaReader::State::constant(const Json& value) {
  return value.is_structured() ? structured(value) : add(Words{{pythonJson(value)}});
}

// An array or an object with exactly these values. As deep as the schema is nested.
RuleId SchemaReader::State::structured(const Json& value) {
  if (!status_.ok()) return 0;
  if (value.is_array()) {
    Array array;
    for (const Json& each : value) array.first.push_back(constant(each));
    array.least = array.most = array.first.size();
    return add(std::move(array));
  }
  Object object;
  for (const auto& [key, each] : value.items()) {
    object.properties.push_back({inner(key), constant(each), true});
  }
  if (object.properties.size() > kMostProperties) tooManyProperties("");
  sortProperties(object.properties);
  return add(std::move(object));
}

void SchemaReader::State::sortProperties(std::vector<Property>& properties) {
  std::sort(properties.begin(), properties.end(),
            [](const Property& a, const Property& b) { return a.name < b.name; });
}

void SchemaReader::State::tooManyProperties(const std::string& path) {
  fail(path, "an object has more than " + std::to_string(kMostProperties) + " properties",
       StatusCode::Unsupported);
}

// ---- Types

void SchemaReader::State::addTypes(const Json& schema, const std::string& path, const Types& types,
                                   std::vector<RuleId>& options) {
  Words words;
  if (types.has("null")) words.texts.emplace_back("null");
  if (types.has("boolean")) words.texts.insert(words.texts.end(), {"true", "false"});
  if (!words.texts.empty()) options.push_back(add(sorted(std::move(words))));
  if (types.has("number") || types.has("integer")) {
    options.push_back(add(number(schema, path, !types.has("number"))));
  }
  if (types.has("string")) options.push_back(add(text(schema, path)));
  if (types.has("array")) options.push_back(add(array(schema, path)));
  if (types.has("object")) options.push_back(add(object(schema, path)));
}

Number SchemaReader::State::number(const Json& schema, const std::string& path, bool integer) {
  Number rule;
  rule.integer = rule.bounds.integer = integer;
  const auto bound = [&](const char* keyword) -> const Json* {
    const Json* value = memberOf(schema, keyword);
    if (value == nullptr) return nullptr;
    rule.bounded = true;
    if (value->is_number()) return value;
    failExpected(path + "/" + keyword, "a number", *value);
    return nullptr;
  };
  if (const Json* value = bound("minimum")) rule.bounds.addMinimum(*value, false);
  if (const Json* value = bound("exclusiveMinimum")) rule.bounds.addMinimum(*value, true);
  if (const Json* value = bound("maximum")) rule.bounds.addMaximum(*value, false);
  if (const Json* value = bound("exclusiveMaximum")) rule.bounds.addMaximum(*value, true);
  return rule;
}

size_t SchemaReader::State::count(const Json& schema, const std::string& path, const char* keyword,
                                  size_t otherwise) {
  const Json* value = memberOf(schema, keyword);
  if (value == nullptr) return otherwise;
  const bool whole =
      value->is_number_unsigned() ||
      (value->is_number_float() && value->get<double>() >= 0 && value->get<double>() < 1e15 &&
       value->get<double>() == static_cast<double>(static_cast<uint64_t>(value->get<double>())));
  if (!whole) {
    failExpected(path + "/" + keyword, "a whole number from 0 on", *value);
    return otherwise;
  }
  return static_cast<size_t>(std::min(value->get<uint64_t>(), uint64_t{kLargestCount}));
}

Text SchemaReader::State::text(const Json& schema, const std::string& path) {
  Text rule;
  rule.least = count(schema, path, "minLength", 0);
  rule.most = count(schema, path, "maxLength", kUnlimited);
  const Json* pattern = memberOf(schema, "pattern");
  if (pattern == nullptr || rule.least > rule.most) return rule;
  if (!pattern->is_string()) {
    failExpected(path + "/pattern", "text", *pattern);
    return rule;
  }
  if (grammar_.patterns.size() == kMostPatterns) {
    fail(path, "there are more than " + std::to_string(kMostPatterns) + " patterns",
         StatusCode::Unsupported);
    return rule;
  }
  PatternAutomaton automaton;
  const Status status =
      PatternAutomaton::compile(pattern->get_ref<const std::string&>(), rule.least, rule.most,
                                limits_.patternStates, automaton);
  if (!status.ok()) fail(path, status.message(), status.code());
  rule.pattern = grammar_.patterns.size();
  grammar_.patterns.push_back(std::move(automaton));
  return rule;
}

Array SchemaReader::State::array(const Json& schema, const std::string& path) {
  Array rule;
  rule.least = count(schema, path, "minItems", 0);
  rule.most = count(schema, path, "maxItems", kUnlimited);
  rule.item = schema.contains("items") ? reserve(schema.at("items"), path + "/items") : any();
  return rule;
}

Object SchemaReader::State::object(const Json& schema, const std::string& path) {
  Object rule;
  rule.additional = schema.contains("additionalProperties")
                        ? reserve(schema.at("additionalProperties"), path + "/additionalProperties")
                        : any();
  rule.properties = properties(schema, path, rule.additional);
  for (Property& property : rule.properties) property.name = inner(property.name);
  sortProperties(rule.properties);
  return rule;
}

// With their own names, in the order of the schema.
std::vector<Property> SchemaReader::State::properties(const Json& schema, const std::string& path,
                                                      RuleId additional) {
  std::vector<Property> list;
  std::unordered_map<std::string, size_t> places;
  const auto put = [&](const std::string& name, RuleId value) {
    if (list.size() == kMostProperties) return tooManyProperties(path);
    places.emplace(name, list.size());
    list.push_back({name, value, false});
  };
  if (const Json* declared = memberOf(schema, "properties")) {
    if (!declared->is_object()) failExpected(path + "/properties", "an object", *declared);
    for (const auto& [key, value] : declared->items()) {
      if (!declared->is_object() || !status_.ok()) break;
      put(key, reserve(value, path + "/properties" + escapedStep(key)));
    }
  }
  const Json* required = memberOf(schema, "required");
  if (required == nullptr) return list;
  if (!required->is_array()) failExpected(path + "/required", "a list of names", *required);
  for (const Json& name : *required) {
    if (!name.is_string()) failExpected(path + "/required", "a list of names", name);
    if (!status_.ok()) break;
    const std::string& key = name.get_ref<const std::string&>();
    if (!places.contains(key)) put(key, additional);
    if (status_.ok()) list[places.at(key)].required = true;
  }
  return list;
}

// Any JSON.
RuleId SchemaReader::State::any() {
  if (any_ == kNoRule) any_ = reserve(kAny, "");
  return any_;
}

}  // namespace zem::text::grammar
