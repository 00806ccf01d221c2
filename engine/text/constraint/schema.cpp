// SPDX-License-Identifier: Apache-2.0
#include "engine/text/constraint/schema.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <deque>
#include <unordered_map>
#include <utility>

#include "engine/text/chat/python_text.h"
#include "engine/text/reply_arguments.h"

namespace zem::text::grammar {
namespace {

using kiv::Status;
using kiv::StatusCode;

constexpr size_t kMostNamed = 16;  // keywords that a message names
constexpr size_t kLargestCount = 1'000'000'000;

constexpr std::array<std::string_view, 7> kTypes = {"null",   "boolean", "integer", "number",
                                                    "string", "array",   "object"};
constexpr std::array<std::string_view, 16> kAssertions = {"properties",
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

std::string_view typeOf(const Json& value) {
  if (value.is_null()) return "null";
  if (value.is_boolean()) return "boolean";
  if (value.is_string()) return "string";
  if (value.is_array()) return "array";
  if (value.is_object()) return "object";
  return value.is_number_float() ? "number" : "integer";
}

// Which types a schema allows.
struct Types {
  std::array<bool, kTypes.size()> allowed{};

  static size_t indexOf(std::string_view name) {
    return static_cast<size_t>(std::find(kTypes.begin(), kTypes.end(), name) - kTypes.begin());
  }
  bool has(std::string_view name) const { return allowed[indexOf(name)]; }
  bool hasValue(const Json& value) const {
    const std::string_view type = typeOf(value);
    return has(type) || (type == "integer" && has("number"));
  }
};

}  // namespace

class SchemaReader::State {
 public:
  State(const Json& document, std::string where, const ConstraintLimits& limits, Grammar& grammar)
      : document_(document), where_(std::move(where)), limits_(limits), grammar_(grammar) {}

  RuleId readDocument() {
    const RuleId root = reserve(document_, "");
    readPending();
    return root;
  }

  RuleId readArgument(const Json& schema, const std::string& path) {
    const RuleId rule = argument(schema, path);
    readPending();
    return rule;
  }

  Status status() const {
    if (!status_.ok() || unsupported_.empty()) return status_;
    std::string names;
    for (const std::string& name : unsupported_) names += (names.empty() ? "" : ", ") + name;
    return {StatusCode::Unsupported, where_ + ": not supported: " + names};
  }

 private:
  struct Pending {
    const Json* schema;
    std::string path;
    RuleId rule;
  };

  void fail(const std::string& path, const std::string& reason,
            StatusCode code = StatusCode::InvalidFormat) {
    if (status_.ok()) status_ = {code, where_ + path + ": " + reason};
  }
  void failExpected(const std::string& path, const std::string& expected, const Json& found) {
    fail(path, "found " + std::string(kindOf(found)) + ", expected " + expected);
  }
  void notSupported(const std::string& path, const std::string& what) {
    if (unsupported_.size() < kMostNamed) {
      unsupported_.push_back(what + (path.empty() ? "" : " at " + path));
    }
  }

  RuleId add(Rule rule) {
    if (grammar_.rules.size() >= limits_.rules) {
      fail("", "has more than " + std::to_string(limits_.rules) + " rules",
           StatusCode::Unsupported);
      return 0;
    }
    grammar_.rules.push_back(std::move(rule));
    return static_cast<RuleId>(grammar_.rules.size() - 1);
  }

  // The rule of a schema, which is read later: schemas may refer to each other.
  RuleId reserve(const Json& schema, std::string path) {
    const auto found = known_.find(&schema);
    if (found != known_.end()) return found->second;
    const RuleId rule = add(Choice{});
    known_.emplace(&schema, rule);
    pending_.push_back({&schema, std::move(path), rule});
    return rule;
  }

  void readPending() {
    while (!pending_.empty() && status_.ok()) {
      const Pending next = std::move(pending_.front());
      pending_.pop_front();
      std::vector<RuleId> options;
      readSchema(*next.schema, next.path, options);
      if (status_.ok()) grammar_.rules[next.rule] = Choice{std::move(options)};
    }
  }

  void readSchema(const Json& schema, const std::string& path, std::vector<RuleId>& options) {
    if (schema.is_boolean()) {
      if (schema.get<bool>()) addTypes(Json::object(), path, allTypes(), options);
      return;
    }
    if (!schema.is_object())
      return failExpected(path, "a schema: an object, true or false", schema);
    checkKeywords(schema, path);
    if (schema.contains("$ref")) return readReference(schema, path, options);
    if (schema.contains("anyOf")) return readAlternatives(schema, path, "anyOf", options);
    if (schema.contains("allOf")) return readAlternatives(schema, path, "allOf", options);
    Types types;
    if (!readTypes(schema, path, types)) return;
    if (schema.contains("enum") || schema.contains("const")) {
      readValues(schema, path, types, options);
    } else {
      addTypes(schema, path, types, options);
    }
  }

  void checkKeywords(const Json& schema, const std::string& path) {
    for (const auto& [key, value] : schema.items()) {
      const bool known = key == "type" || key == "enum" || key == "const" ||
                         isIn(kAssertions, key) || isIn(kDescriptions, key) ||
                         key.starts_with("x-");
      if (!known) notSupported(path, quotedStart(key));
    }
  }

  // What else a schema says, besides `keyword` and what may stand beside it.
  void checkAlone(const Json& schema, const std::string& path, std::string_view keyword,
                  bool besideType) {
    for (const auto& [key, value] : schema.items()) {
      const bool says = key == "type" || key == "enum" || key == "const" || isIn(kAssertions, key);
      if (!says || key == keyword || (besideType && key == "type")) continue;
      notSupported(path, quotedJson(key) + " beside " + quotedJson(keyword));
    }
  }

  void readReference(const Json& schema, const std::string& path, std::vector<RuleId>& options) {
    checkAlone(schema, path, "$ref", false);
    const Json& reference = schema.at("$ref");
    if (!reference.is_string()) return failExpected(path + "/$ref", "text", reference);
    const std::string& text = reference.get_ref<const std::string&>();
    const Json* target = referenced(document_, text);
    if (target == nullptr) {
      return fail(path + "/$ref", "there is nothing at " + quotedStart(text) +
                                      ", expected a place in this document, such as #/$defs/name");
    }
    options.push_back(reserve(*target, text.substr(1)));
  }

  void readAlternatives(const Json& schema, const std::string& path, const std::string& keyword,
                        std::vector<RuleId>& options) {
    checkAlone(schema, path, keyword, false);
    const Json& list = schema.at(keyword);
    const std::string at = path + "/" + keyword;
    if (!list.is_array() || list.empty()) return failExpected(at, "a list of schemas", list);
    if (keyword == "allOf" && list.size() > 1) {
      return notSupported(path, "\"allOf\" of several schemas");
    }
    for (size_t i = 0; i < list.size() && status_.ok(); ++i) {
      options.push_back(reserve(list[i], at + "/" + std::to_string(i)));
    }
  }

  static Types allTypes() {
    Types types;
    types.allowed.fill(true);
    return types;
  }

  bool readTypes(const Json& schema, const std::string& path, Types& types) {
    const Json* type = memberOf(schema, "type");
    if (type == nullptr) {
      types = allTypes();
      return true;
    }
    const Json list = type->is_array() ? *type : Json::array({*type});
    for (const Json& name : list) {
      const size_t index =
          name.is_string() ? Types::indexOf(name.get_ref<const std::string&>()) : kTypes.size();
      if (index == kTypes.size()) {
        const std::string found = name.is_string() ? quotedStart(name.get_ref<const std::string&>())
                                                   : std::string(kindOf(name));
        fail(path + "/type",
             "found " + found +
                 ", expected null, boolean, integer, number, string, array or object");
        return false;
      }
      types.allowed[index] = true;
    }
    return true;
  }

  // ---- Values

  void readValues(const Json& schema, const std::string& path, const Types& types,
                  std::vector<RuleId>& options) {
    const std::string keyword = schema.contains("enum") ? "enum" : "const";
    checkAlone(schema, path, keyword, true);
    const Json& value = schema.at(keyword);
    if (keyword == "enum" && !value.is_array())
      return failExpected(path + "/enum", "a list", value);
    std::vector<const Json*> values;
    if (keyword == "const") {
      values.push_back(&value);
    } else {
      for (const Json& each : value) values.push_back(&each);
    }
    addValues(values, types, options);
  }

  void addValues(const std::vector<const Json*>& values, const Types& types,
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

  static Words sorted(Words words) {
    std::sort(words.texts.begin(), words.texts.end());
    words.texts.erase(std::unique(words.texts.begin(), words.texts.end()), words.texts.end());
    return words;
  }

  RuleId constant(const Json& value) {
    return value.is_structured() ? structured(value) : add(Words{{pythonJson(value)}});
  }

  // An array or an object with exactly these values. As deep as the schema is nested.
  RuleId structured(const Json& value) {
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

  static std::string inner(std::string_view key) {
    std::string text;
    appendEscaped(key, text);
    return text;
  }

  static void sortProperties(std::vector<Property>& properties) {
    std::sort(properties.begin(), properties.end(),
              [](const Property& a, const Property& b) { return a.name < b.name; });
  }

  void tooManyProperties(const std::string& path) {
    fail(path, "an object has more than " + std::to_string(kMostProperties) + " properties",
         StatusCode::Unsupported);
  }

  // ---- Types

  void addTypes(const Json& schema, const std::string& path, const Types& types,
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

  Number number(const Json& schema, const std::string& path, bool integer) {
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

  size_t count(const Json& schema, const std::string& path, const char* keyword, size_t otherwise) {
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

  Text text(const Json& schema, const std::string& path) {
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

  Array array(const Json& schema, const std::string& path) {
    Array rule;
    rule.least = count(schema, path, "minItems", 0);
    rule.most = count(schema, path, "maxItems", kUnlimited);
    rule.item = schema.contains("items") ? reserve(schema.at("items"), path + "/items") : any();
    return rule;
  }

  Object object(const Json& schema, const std::string& path) {
    Object rule;
    rule.additional =
        schema.contains("additionalProperties")
            ? reserve(schema.at("additionalProperties"), path + "/additionalProperties")
            : any();
    rule.properties = properties(schema, path, rule.additional);
    for (Property& property : rule.properties) property.name = inner(property.name);
    sortProperties(rule.properties);
    return rule;
  }

  // With their own names, in the order of the schema.
  std::vector<Property> properties(const Json& schema, const std::string& path, RuleId additional) {
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
  RuleId any() {
    if (any_ == kNoRule) any_ = reserve(kAny, "");
    return any_;
  }

  // ---- Arguments of tool calls

  // As `schema`, but strings are raw text where it allows nothing else, or null besides.
  // ArgumentKinds has followed all references then: they lead somewhere, and to an end.
  RuleId argument(const Json& schema, const std::string& path) {
    const ArgumentKind kind = ArgumentKinds::kindOfSchema(schema, document_);
    if (kind == ArgumentKind::Typed) return reserve(schema, path);
    std::vector<RuleId> options;
    std::vector<std::pair<const Json*, std::string>> queue = {{&schema, path}};
    for (size_t i = 0; i < queue.size() && status_.ok(); ++i) {
      const auto [next, at] = queue[i];
      readRaw(*next, at, options, queue);
    }
    return add(Choice{std::move(options)});
  }

  void readRaw(const Json& schema, const std::string& path, std::vector<RuleId>& options,
               std::vector<std::pair<const Json*, std::string>>& queue) {
    checkKeywords(schema, path);
    for (const char* keyword : {"$ref", "anyOf", "allOf"}) {
      if (schema.contains(keyword)) checkAlone(schema, path, keyword, false);
    }
    if (!unsupported_.empty()) return;
    if (schema.contains("$ref")) {
      const std::string& text = schema.at("$ref").get_ref<const std::string&>();
      queue.emplace_back(referenced(document_, text), text.substr(1));
      return;
    }
    for (const std::string keyword : {"anyOf", "allOf"}) {
      if (!schema.contains(keyword)) continue;
      const Json& list = schema.at(keyword);
      if (keyword == "allOf" && list.size() > 1)
        return notSupported(path, "\"allOf\" of several schemas");
      for (size_t i = 0; i < list.size(); ++i) {
        std::string at = path;
        at.append("/").append(keyword).append("/").append(std::to_string(i));
        queue.emplace_back(&list[i], std::move(at));
      }
      return;
    }
    Types types;
    if (!readTypes(schema, path, types)) return;
    if (schema.contains("enum") || schema.contains("const")) {
      readRawValues(schema, path, types, options);
      return;
    }
    if (types.has("null")) options.push_back(add(Words{{"null"}}));
    if (!types.has("string")) return;
    Text rule = text(schema, path);
    rule.quoted = false;
    options.push_back(add(rule));
  }

  void readRawValues(const Json& schema, const std::string& path, const Types& types,
                     std::vector<RuleId>& options) {
    const std::string keyword = schema.contains("enum") ? "enum" : "const";
    checkAlone(schema, path, keyword, true);
    const Json values = keyword == "enum" ? schema.at("enum") : Json::array({schema.at("const")});
    Words words;
    for (const Json& value : values) {
      if (!types.hasValue(value) || !(value.is_null() || value.is_string())) continue;
      std::string text = value.is_null() ? "null" : value.get<std::string>();
      if (text.find("</parameter>") != std::string::npos ||
          text.find("</tool_call>") != std::string::npos) {
        return fail(path, "a value holds what ends a tool call's argument",
                    StatusCode::Unsupported);
      }
      if (text.empty()) {
        options.push_back(add(Text{.quoted = false, .least = 0, .most = 0, .pattern = kUnlimited}));
      } else {
        words.texts.push_back(std::move(text));
      }
    }
    if (!words.texts.empty()) options.push_back(add(sorted(std::move(words))));
  }

  static constexpr size_t kMostPatterns = 64;
  inline static const Json kAny = true;

  const Json& document_;
  std::string where_;
  const ConstraintLimits& limits_;
  Grammar& grammar_;
  std::unordered_map<const Json*, RuleId> known_;
  std::deque<Pending> pending_;
  RuleId any_ = kNoRule;
  size_t values_ = 0;
  Status status_;
  std::vector<std::string> unsupported_;
};

SchemaReader::SchemaReader(const Json& document, std::string where, const ConstraintLimits& limits,
                           Grammar& grammar)
    : state_(std::make_unique<State>(document, std::move(where), limits, grammar)) {}
SchemaReader::~SchemaReader() = default;
RuleId SchemaReader::readDocument() { return state_->readDocument(); }
RuleId SchemaReader::readArgument(const Json& schema, const std::string& path) {
  return state_->readArgument(schema, path);
}
Status SchemaReader::status() const { return state_->status(); }

}  // namespace zem::text::grammar
