// SPDX-License-Identifier: Apache-2.0
#include "engine/text/reply_arguments.h"

#include <cctype>
#include <nlohmann/json.hpp>

#include "engine/text/chat/python_text.h"

namespace zem::text {
namespace {

// What values a schema allows.
struct Allowed {
  bool text = false;
  bool null = false;
  bool other = false;
};

class Classifier {
 public:
  // `visits`: to schemas of the request, so far.
  Classifier(const Json& root, int& visits) : root_(root), visits_(visits), first_(visits) {}

  ArgumentKind kindOf(const Json& schema) {
    Allowed allowed;
    visit(schema, allowed);
    if (!allowed.text || allowed.other) return ArgumentKind::Typed;
    return allowed.null ? ArgumentKind::TextOrNull : ArgumentKind::Text;
  }

 private:
  // Alternatives may refer to each other for ever, and many to the same large schema.
  static constexpr int kMostVisits = 64;
  static constexpr int kMostVisitsOfAll = 16384;
  static constexpr size_t kMostValues = 256;

  bool tooMany() const { return visits_ - first_ > kMostVisits || visits_ > kMostVisitsOfAll; }

  void visit(const Json& schema, Allowed& allowed) {
    const Json* reference = memberOf(schema, "$ref");
    const Json* type = memberOf(schema, "type");
    ++visits_;
    if (tooMany()) {
      allowed.other = true;
    } else if (reference != nullptr && reference->is_string()) {
      visitReferenced(reference->get_ref<const std::string&>(), allowed);
    } else if (type != nullptr) {
      addTypes(*type, allowed);
    } else if (const Json* values = memberOf(schema, "enum")) {
      addValues(*values, allowed);
    } else if (schema.is_object() && schema.contains("const")) {
      addValue(schema.at("const"), allowed);
    } else {
      visitAlternatives(schema, allowed);
    }
  }

  void visitReferenced(std::string_view reference, Allowed& allowed) {
    const Json* schema = referenced(root_, reference);
    if (schema == nullptr) {
      allowed.other = true;
    } else {
      visit(*schema, allowed);
    }
  }

  void visitAlternatives(const Json& schema, Allowed& allowed) {
    bool any = false;
    for (const char* key : {"anyOf", "oneOf", "allOf"}) {
      const Json* list = memberOf(schema, key);
      if (list == nullptr || !list->is_array()) continue;
      for (const Json& alternative : *list) {
        any = true;
        visit(alternative, allowed);
        if (tooMany()) return;
      }
    }
    if (!any) allowed.other = true;
  }

  static void addTypes(const Json& type, Allowed& allowed) {
    if (!type.is_array()) {
      addType(type, allowed);
      return;
    }
    for (const Json& name : type) {
      if (allowed.other) return;
      addType(name, allowed);
    }
  }

  static void addType(const Json& name, Allowed& allowed) {
    (name == "string" ? allowed.text : name == "null" ? allowed.null : allowed.other) = true;
  }

  static void addValues(const Json& values, Allowed& allowed) {
    size_t count = 0;
    for (const Json& value : values) {
      if (++count > kMostValues) return;
      addValue(value, allowed);
    }
  }

  static void addValue(const Json& value, Allowed& allowed) {
    (value.is_string() ? allowed.text : value.is_null() ? allowed.null : allowed.other) = true;
  }

  const Json& root_;
  int& visits_;
  int first_;
};

std::string_view withoutJsonBlanks(std::string_view text) {
  constexpr std::string_view kBlanks = " \t\n\r";
  const size_t first = text.find_first_not_of(kBlanks);
  if (first == std::string_view::npos) return {};
  return text.substr(first, text.find_last_not_of(kBlanks) - first + 1);
}

std::string_view inJson(std::string_view word) {
  if (word == "True") return "true";
  if (word == "False") return "false";
  return word == "None" ? "null" : word;
}

// The bytes of the string that `text` begins with, quotation marks included.
size_t stringLength(std::string_view text) {
  size_t at = 1;
  while (at < text.size() && text[at] != '"') at += text[at] == '\\' ? 2 : 1;
  return std::min(at + 1, text.size());
}

size_t wordLength(std::string_view text) {
  size_t length = 0;
  while (length < text.size() && std::isalpha(static_cast<unsigned char>(text[length]))) ++length;
  return length;
}

// `text` with Python's words outside strings as JSON's; empty when it is nested too deep.
std::string withJsonWords(std::string_view text) {
  std::string out;
  int depth = 0;
  while (!text.empty()) {
    size_t length = 1;
    std::string_view shown;
    if (text[0] == '"') {
      length = stringLength(text);
    } else if (const size_t word = wordLength(text); word > 0) {
      length = word;
      shown = inJson(text.substr(0, word));
    }
    if (text[0] == '[' || text[0] == '{') ++depth;
    if (text[0] == ']' || text[0] == '}') --depth;
    if (depth > kMaxJsonDepth) return {};
    out += shown.empty() ? text.substr(0, length) : shown;
    text.remove_prefix(length);
  }
  return out;
}

}  // namespace

ArgumentKinds::ArgumentKinds(const std::vector<Json>& tools) {
  int visits = 0;
  for (const Json& tool : tools) {
    const Json* inner = memberOf(tool, "function");
    const Json& function = inner != nullptr ? *inner : tool;
    const Json* name = memberOf(function, "name");
    const Json* schema = memberOf(function, "parameters");
    if (name == nullptr || !name->is_string() || schema == nullptr) continue;
    const auto [found, isNew] = functions_.try_emplace(name->get<std::string>());
    const Json* properties = memberOf(*schema, "properties");
    if (!isNew || properties == nullptr || !properties->is_object()) continue;
    for (const auto& [key, property] : properties->items()) {
      found->second.try_emplace(key, Classifier(*schema, visits).kindOf(property));
    }
  }
}

ArgumentKind ArgumentKinds::kindOfSchema(const Json& schema, const Json& root) {
  int visits = 0;
  return Classifier(root, visits).kindOf(schema);
}

ArgumentKind ArgumentKinds::kindOf(const std::string& function, const std::string& argument) const {
  const auto arguments = functions_.find(function);
  if (arguments == functions_.end()) return ArgumentKind::Typed;
  const auto found = arguments->second.find(argument);
  return found == arguments->second.end() ? ArgumentKind::Typed : found->second;
}

std::string argumentJson(std::string_view text, ArgumentKind kind) {
  const std::string_view bare = withoutJsonBlanks(text);
  if (kind == ArgumentKind::TextOrNull && (bare == "null" || bare == "None")) return "null";
  if (kind == ArgumentKind::Typed) {
    std::string json = withJsonWords(bare);
    if (!json.empty() && Json::accept(json)) return json;
  }
  return quotedJson(text);
}

}  // namespace zem::text
