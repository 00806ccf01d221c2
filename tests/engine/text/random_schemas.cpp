// SPDX-License-Identifier: Apache-2.0
#include "engine/text/random_schemas.h"

#include <algorithm>
#include <iterator>
#include <utility>

namespace zem::text::test {
namespace {

constexpr const char* kNode = "#/$defs/node";

// Patterns that mean the same to every engine, with texts that match.
struct Pattern {
  std::string pattern;
  std::vector<std::string> texts;
};

const std::vector<Pattern>& patterns() {
  static const std::vector<Pattern> all = {
      {"^[a-z]{2,4}$", {"ab", "xyz", "none"}},
      {"^\\d+(-\\d{2})?$", {"0", "17", "2026-11"}},
      {"b", {"b", "abc", "x b x"}},
      {"^(red|green|blue)$", {"red", "green", "blue"}},
      {"^[A-Z][a-z]*( [A-Z][a-z]*)?$", {"A", "Ada", "Ada Lovelace"}},
      {"^a?b*c+$", {"c", "abc", "bbcc"}},
      {"[0-9]$", {"0", "route 66"}},
      {"^x-", {"x-", "x-ray"}},
      {"^[\\w.]+@[\\w.]+$", {"a@b", "ada.l@example.org"}}};
  return all;
}

const std::vector<std::string>& names() {
  static const std::vector<std::string> all = {"name", "na",       "age",        "a", "ab",
                                               "tags", "\xC3\xA4", "with space", ""};
  return all;
}

// Names that need no escape: others can be produced only where they are declared.
const std::vector<std::string>& plainNames() {
  static const std::vector<std::string> all = {"name", "a", "b", "tags", "\xC3\xA4", ""};
  return all;
}

// Names of members that are required, those of inner objects too.
void collectNames(const Json& schema, std::vector<std::string>& out) {
  if (!schema.is_structured()) return;
  if (schema.is_object() && schema.contains("required")) {
    for (const Json& name : schema.at("required")) out.push_back(name.dump() + ":");
  }
  for (const Json& value : schema) collectNames(value, out);
}

// What leads to the end of a reply, between its values and inside a text.
struct Endings {
  std::vector<std::string> between = {"}", "]", ":"};
  std::vector<std::string> inside = {"\""};

  explicit Endings(const Json& schema) {
    collectNames(schema, between);
    between.insert(between.end(), {"null", "1", "\"", ","});
    for (const Pattern& each : patterns()) {
      for (const std::string& text : each.texts) inside.push_back(text + "\"");
    }
  }

  // A line feed is a blank, and never part of a text.
  const std::vector<std::string>& of(const ConstraintState& state) const {
    return state.accepts("\n") ? between : inside;
  }
};

}  // namespace

// ---- Schemas

Json RandomSchemas::schema() {
  Json made = part(4);
  if (!made.is_object()) made = Json::object();
  // What optional members and elements refer to.
  made["$defs"] = {{"node",
                    {{"type", "object"},
                     {"properties",
                      {{"value", scalar()},
                       {"next", {{"$ref", kNode}}},
                       {"kids", {{"type", "array"}, {"items", {{"$ref", kNode}}}}}}},
                     {"required", {"value"}},
                     {"additionalProperties", false}}}};
  if (oneIn(3)) made["title"] = "made for a test";
  if (oneIn(5)) made["x-note"] = Json::array({1, "two"});
  return made;
}

Json RandomSchemas::part(int depth) {
  if (depth > 0 && !oneIn(4)) {
    switch (below(7)) {
      case 0:
      case 1:
        return array(depth);
      case 2:
        return Json{{"anyOf", Json::array({part(depth - 1), part(depth - 1)})}};
      case 3:
        return Json{{"$ref", kNode}};
      default:
        return object(depth);
    }
  }
  if (oneIn(12)) return oneIn(2) ? Json(true) : Json::object();
  return scalar();
}

Json RandomSchemas::scalar() {
  switch (below(8)) {
    case 0:
      return {{"type", "boolean"}};
    case 1:
      return {{"type", Json::array({"string", "null"})}};
    case 2:
      return {{"enum", Json::array({"up", "down", 1, 1.5, nullptr, "u"})}};
    case 3:
      return {{"const", oneIn(2) ? Json("fixed") : Json{{"a", Json::array({1, "x"})}}}};
    case 4:
      return number(false);
    case 5:
      return number(true);
    default:
      return text();
  }
}

Json RandomSchemas::text() {
  Json made = {{"type", "string"}};
  if (oneIn(3)) {
    made["pattern"] = oneOf(patterns()).pattern;
    return made;
  }
  const size_t least = below(4);
  if (oneIn(3)) made["minLength"] = least;
  if (oneIn(3)) made["maxLength"] = least + below(6);
  if (oneIn(6)) made["description"] = "some text";
  return made;
}

// Bounds are multiples of a quarter, so that every reader has them exactly.
Json RandomSchemas::number(bool integer) {
  Json made = {{"type", integer ? "integer" : "number"}};
  const int64_t least = static_cast<int64_t>(below(2000)) - 1000;
  if (oneIn(2)) {
    const char* const keyword = oneIn(3) ? "exclusiveMinimum" : "minimum";
    made[keyword] = integer ? Json(least) : Json(static_cast<double>(least) + 0.25);
  }
  if (oneIn(2)) {
    const int64_t most = least + 2 + static_cast<int64_t>(below(500));
    const char* const keyword = oneIn(3) ? "exclusiveMaximum" : "maximum";
    made[keyword] = integer ? Json(most) : Json(static_cast<double>(most) + 0.5);
  }
  return made;
}

Json RandomSchemas::array(int depth) {
  Json made = {{"type", "array"}};
  if (!oneIn(5)) made["items"] = part(depth - 1);
  const size_t least = below(3);
  if (oneIn(2)) made["minItems"] = least;
  if (oneIn(3)) made["maxItems"] = least + below(3);
  return made;
}

Json RandomSchemas::object(int depth) {
  Json made = {{"type", "object"}, {"properties", Json::object()}};
  Json required = Json::array();
  for (const std::string& name : names()) {
    if (!oneIn(3)) continue;
    made["properties"][name] = part(depth - 1);
    // Some validators overlook that the empty name is required.
    if (oneIn(2) && !name.empty()) required.push_back(name);
  }
  const size_t additional = below(4);
  if (additional < 2) made["additionalProperties"] = false;
  if (additional == 2) made["additionalProperties"] = scalar();
  if (additional > 1 && oneIn(3)) required.push_back("not declared");
  if (!required.empty()) made["required"] = required;
  return made;
}

// ---- Documents

Json RandomSchemas::document(const Json& schema) {
  root_ = schema;
  return documentOf(schema, 3);
}

Json RandomSchemas::anything(int depth) {
  switch (below(depth > 0 ? 7 : 5)) {
    case 0:
      return nullptr;
    case 1:
      return oneIn(2);
    case 2:
      return static_cast<int64_t>(below(4000)) - 2000;
    case 3:
      return static_cast<double>(below(100)) + 0.5;
    case 4:
      return oneOf(std::vector<std::string>{"", "a", "\xC3\xA4\xE7\x94\x9F", "\xF0\x9F\x98\x8A",
                                            "a \"b\"\n\\", "red", "down"});
    case 5: {
      Json list = Json::array();
      for (size_t i = below(3); i > 0; --i) list.push_back(anything(depth - 1));
      return list;
    }
    default: {
      Json object = Json::object();
      for (size_t i = below(3); i > 0; --i) object[oneOf(plainNames())] = anything(depth - 1);
      return object;
    }
  }
}

Json RandomSchemas::documentOf(const Json& schema, int depth) {
  if (schema.is_boolean()) return anything(depth);
  if (schema.contains("$ref")) {
    return documentOf(*referenced(root_, schema.at("$ref").get<std::string>()), depth - 1);
  }
  if (schema.contains("anyOf")) {
    return documentOf(schema.at("anyOf")[below(schema.at("anyOf").size())], depth);
  }
  if (schema.contains("const")) return schema.at("const");
  if (schema.contains("enum")) return schema.at("enum")[below(schema.at("enum").size())];
  if (!schema.contains("type")) return anything(depth);
  const Json& type = schema.at("type");
  const Json& chosen = type.is_array() ? type[below(type.size())] : type;
  return documentOfType(chosen.get<std::string>(), schema, depth);
}

Json RandomSchemas::documentOfType(const std::string& type, const Json& schema, int depth) {
  if (type == "null") return nullptr;
  if (type == "boolean") return oneIn(2);
  if (type == "string") return textOf(schema);
  if (type == "array") return arrayOf(schema, depth);
  if (type == "object") return objectOf(schema, depth);
  return numberOf(schema, type == "integer");
}

Json RandomSchemas::textOf(const Json& schema) {
  if (schema.contains("pattern")) {
    for (const Pattern& each : patterns()) {
      if (each.pattern == schema.at("pattern")) return oneOf(each.texts);
    }
  }
  static const std::vector<std::string> kCharacters = {
      "a", "Z", "\xC3\xA4", "\xE7\x94\x9F", "\xF0\x9F\x98\x8A", "\n", "\"", "\\", " "};
  const auto least = schema.value("minLength", size_t{0});
  const auto most = std::max(least, schema.value("maxLength", least + 6));
  std::string made;
  for (size_t i = least + below(most - least + 1); i > 0; --i) made += oneOf(kCharacters);
  return made;
}

Json RandomSchemas::numberOf(const Json& schema, bool integer) {
  // Inside the bounds there is room for two, whichever are given.
  double least = -3000;
  double most = 3000;
  if (schema.contains("minimum")) least = schema.at("minimum").get<double>();
  if (schema.contains("exclusiveMinimum")) least = schema.at("exclusiveMinimum").get<double>() + 1;
  if (schema.contains("maximum")) most = schema.at("maximum").get<double>();
  if (schema.contains("exclusiveMaximum")) most = schema.at("exclusiveMaximum").get<double>() - 1;
  const auto steps = static_cast<size_t>(most - least) + 1;
  const double value = least + static_cast<double>(below(steps));
  if (integer) return static_cast<int64_t>(value);
  return value == static_cast<double>(static_cast<int64_t>(value)) ? value + 0.5 : value;
}

Json RandomSchemas::arrayOf(const Json& schema, int depth) {
  const auto least = schema.value("minItems", size_t{0});
  const auto most = depth > 0 ? schema.value("maxItems", least + 2) : least;
  Json list = Json::array();
  const Json items = schema.contains("items") ? schema.at("items") : Json(true);
  for (size_t i = least + below(most - least + 1); i > 0; --i) {
    list.push_back(documentOf(items, depth - 1));
  }
  return list;
}

Json RandomSchemas::objectOf(const Json& schema, int depth) {
  const Json required = schema.contains("required") ? schema.at("required") : Json::array();
  const Json additional =
      schema.contains("additionalProperties") ? schema.at("additionalProperties") : Json(true);
  const Json& properties = schema.at("properties");
  std::vector<std::pair<std::string, Json>> members;
  for (const auto& [name, value] : properties.items()) {
    const bool needed = std::find(required.begin(), required.end(), Json(name)) != required.end();
    if (needed || (depth > 0 && oneIn(2))) members.emplace_back(name, documentOf(value, depth - 1));
  }
  for (const Json& name : required) {
    const auto key = name.get<std::string>();
    if (!properties.contains(key)) members.emplace_back(key, documentOf(additional, depth - 1));
  }
  if (additional != Json(false) && oneIn(3)) {
    members.emplace_back("namely", documentOf(additional, depth - 1));
  }
  std::shuffle(members.begin(), members.end(), random_);
  Json object = Json::object();
  for (auto& [name, value] : members) object[name] = std::move(value);
  return object;
}

Json RandomSchemas::damaged(Json document) {
  if (!document.is_structured() || document.empty() || oneIn(4)) return anything(2);
  const size_t at = below(document.size());
  auto place = document.begin();
  std::advance(place, at);
  if (oneIn(5)) {
    document.erase(place);
  } else if (!oneIn(5)) {
    *place = damaged(*place);
  } else if (document.is_array()) {
    document.push_back(anything(1));
  } else {
    document["b"] = anything(1);
  }
  return document;
}

// ---- Replies

std::string RandomSchemas::reply(const std::shared_ptr<const Constraint>& constraint,
                                 const Json& schema) {
  constexpr size_t kFree = 40;
  const Endings endings(schema);
  ConstraintState state = Constraint::begin(constraint);
  std::string made;
  while (made.size() < 10000) {
    const bool ending = made.size() > kFree;
    const bool blanks = !ending || !state.accepts("\n");
    std::string next;
    if (ending && !oneIn(3)) {
      const auto fits = [&](const std::string& word) { return state.accepts(word) && !oneIn(4); };
      const std::vector<std::string>& words = endings.of(state);
      const auto found = std::find_if(words.begin(), words.end(), fits);
      if (found != words.end()) next = *found;
    }
    std::vector<std::string> bytes;
    for (unsigned byte = 0; byte < 256 && next.empty(); ++byte) {
      const std::string one(1, static_cast<char>(byte));
      const bool blank = one == "\n" || one == "\t" || one == "\r" || one == " ";
      if ((blanks || !blank) && state.accepts(one)) bytes.push_back(one);
    }
    if (state.complete() && (ending || state.over() || oneIn(10))) return made;
    if (next.empty() && bytes.empty()) return made;  // a dead end: no document
    if (next.empty()) next = oneOf(bytes);
    if (!state.advance(next)) return made;
    made += next;
  }
  return {};
}

}  // namespace zem::text::test
