// SPDX-License-Identifier: Apache-2.0
// Schemas of the arguments of tool calls, in which strings are raw text.
#include <nlohmann/json.hpp>
#include <utility>

#include "engine/text/constraint/schema_state.h"

namespace zem::text::grammar {

using kiv::StatusCode;

RuleId SchemaReader::State::readArgument(const Json& schema, const std::string& path) {
  const RuleId rule = argument(schema, path);
  readPending();
  return rule;
}

// As `schema`, but strings are raw text where it allows nothing else, or null besides.
// ArgumentKinds has followed all references then: they lead somewhere, and to an end.
RuleId SchemaReader::State::argument(const Json& schema, const std::string& path) {
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

void SchemaReader::State::readRaw(const Json& schema, const std::string& path,
                                  std::vector<RuleId>& options,
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

void SchemaReader::State::readRawValues(const Json& schema, const std::string& path,
                                        const Types& types, std::vector<RuleId>& options) {
  const std::string keyword = schema.contains("enum") ? "enum" : "const";
  checkAlone(schema, path, keyword, true);
  const Json values = keyword == "enum" ? schema.at("enum") : Json::array({schema.at("const")});
  Words words;
  for (const Json& value : values) {
    if (!types.hasValue(value) || !(value.is_null() || value.is_string())) continue;
    std::string text = value.is_null() ? "null" : value.get<std::string>();
    if (text.find("</parameter>") != std::string::npos ||
        text.find("</tool_call>") != std::string::npos) {
      return fail(path, "a value holds what ends a tool call's argument", StatusCode::Unsupported);
    }
    if (text.empty()) {
      options.push_back(add(Text{.quoted = false, .least = 0, .most = 0, .pattern = kUnlimited}));
    } else {
      words.texts.push_back(std::move(text));
    }
  }
  if (!words.texts.empty()) options.push_back(add(sorted(std::move(words))));
}

}  // namespace zem::text::grammar
