// SPDX-License-Identifier: Apache-2.0
#include "engine/text/constraint/schema.h"

#include <algorithm>
#include <nlohmann/json.hpp>
#include <utility>

#include "engine/text/chat/python_text.h"
#include "engine/text/constraint/schema_state.h"

namespace zem::text::grammar {
namespace {

using kiv::Status;
using kiv::StatusCode;

constexpr size_t kMostNamed = 16;  // keywords that a message names

}  // namespace

RuleId SchemaReader::State::readDocument() {
  const RuleId root = reserve(document_, "");
  readPending();
  return root;
}

Status SchemaReader::State::status() const {
  if (!status_.ok() || unsupported_.empty()) return status_;
  std::string names;
  for (const std::string& name : unsupported_) names += (names.empty() ? "" : ", ") + name;
  return {StatusCode::Unsupported, where_ + ": not supported: " + names};
}

void SchemaReader::State::fail(const std::string& path, const std::string& reason,
                               StatusCode code) {
  if (status_.ok()) status_ = {code, where_ + path + ": " + reason};
}

void SchemaReader::State::failExpected(const std::string& path, const std::string& expected,
                                       const Json& found) {
  fail(path, "found " + std::string(kindOf(found)) + ", expected " + expected);
}

void SchemaReader::State::notSupported(const std::string& path, const std::string& what) {
  if (unsupported_.size() < kMostNamed) {
    unsupported_.push_back(what + (path.empty() ? "" : " at " + path));
  }
}

RuleId SchemaReader::State::add(Rule rule) {
  if (grammar_.rules.size() >= limits_.rules) {
    fail("", "has more than " + std::to_string(limits_.rules) + " rules", StatusCode::Unsupported);
    return 0;
  }
  grammar_.rules.push_back(std::move(rule));
  return static_cast<RuleId>(grammar_.rules.size() - 1);
}

// The rule of a schema, which is read later: schemas may refer to each other.
RuleId SchemaReader::State::reserve(const Json& schema, std::string path) {
  const auto found = known_.find(&schema);
  if (found != known_.end()) return found->second;
  const RuleId rule = add(Choice{});
  known_.emplace(&schema, rule);
  pending_.push_back({&schema, std::move(path), rule});
  return rule;
}

void SchemaReader::State::readPending() {
  while (!pending_.empty() && status_.ok()) {
    const Pending next = std::move(pending_.front());
    pending_.pop_front();
    std::vector<RuleId> options;
    readSchema(*next.schema, next.path, options);
    if (status_.ok()) grammar_.rules[next.rule] = Choice{std::move(options)};
  }
}

void SchemaReader::State::readSchema(const Json& schema, const std::string& path,
                                     std::vector<RuleId>& options) {
  if (schema.is_boolean()) {
    if (schema.get<bool>()) addTypes(Json::object(), path, Types::all(), options);
    return;
  }
  if (!schema.is_object()) return failExpected(path, "a schema: an object, true or false", schema);
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

void SchemaReader::State::checkKeywords(const Json& schema, const std::string& path) {
  for (const auto& [key, value] : schema.items()) {
    if (!isKnownKeyword(key)) notSupported(path, quotedStart(key));
  }
}

// What else a schema says, besides `keyword` and what may stand beside it.
void SchemaReader::State::checkAlone(const Json& schema, const std::string& path,
                                     std::string_view keyword, bool besideType) {
  for (const auto& [key, value] : schema.items()) {
    if (!isAssertion(key) || key == keyword || (besideType && key == "type")) continue;
    notSupported(path, quotedJson(key) + " beside " + quotedJson(keyword));
  }
}

void SchemaReader::State::readReference(const Json& schema, const std::string& path,
                                        std::vector<RuleId>& options) {
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

void SchemaReader::State::readAlternatives(const Json& schema, const std::string& path,
                                           const std::string& keyword,
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

bool SchemaReader::State::readTypes(const Json& schema, const std::string& path, Types& types) {
  const Json* type = memberOf(schema, "type");
  if (type == nullptr) {
    types = Types::all();
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
           "found " + found + ", expected null, boolean, integer, number, string, array or object");
      return false;
    }
    types.allowed[index] = true;
  }
  return true;
}

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
