// SPDX-License-Identifier: Apache-2.0
// Whether a value satisfies a schema, for the keywords that constraints know: written
// plainly, and apart from them.
#pragma once

#include <cmath>
#include <nlohmann/json.hpp>
#include <regex>
#include <string>

#include "engine/text/json.h"

namespace zem::text {

class SchemaValidator {
 public:
  explicit SchemaValidator(const Json& root) : root_(root) {}

  bool allows(const Json& value) const { return allows(root_, value); }

  bool allows(const Json& schema, const Json& value) const {
    if (schema.is_boolean()) return schema.get<bool>();
    if (schema.contains("$ref"))
      return allows(*referenced(root_, schema.at("$ref").get<std::string>()), value);
    if (schema.contains("anyOf")) {
      for (const Json& option : schema.at("anyOf")) {
        if (allows(option, value)) return true;
      }
      return false;
    }
    if (schema.contains("allOf") && !allows(schema.at("allOf")[0], value)) return false;
    return allowsType(schema, value) && allowsValue(schema, value) && allowsNumber(schema, value) &&
           allowsText(schema, value) && allowsArray(schema, value) && allowsObject(schema, value);
  }

 private:
  static bool isOfType(const std::string& type, const Json& value) {
    if (type == "null") return value.is_null();
    if (type == "boolean") return value.is_boolean();
    if (type == "string") return value.is_string();
    if (type == "array") return value.is_array();
    if (type == "object") return value.is_object();
    if (type == "integer") {
      return value.is_number() && value.get<double>() == std::floor(value.get<double>());
    }
    return type == "number" && value.is_number();
  }

  static bool allowsType(const Json& schema, const Json& value) {
    if (!schema.contains("type")) return true;
    const Json& type = schema.at("type");
    if (type.is_string()) return isOfType(type.get<std::string>(), value);
    for (const Json& name : type) {
      if (isOfType(name.get<std::string>(), value)) return true;
    }
    return false;
  }

  // Members in another order are the same object.
  static bool same(const Json& a, const Json& b) {
    return nlohmann::json::parse(a.dump()) == nlohmann::json::parse(b.dump());
  }

  static bool allowsValue(const Json& schema, const Json& value) {
    if (schema.contains("const")) return same(schema.at("const"), value);
    if (!schema.contains("enum")) return true;
    for (const Json& option : schema.at("enum")) {
      if (same(option, value)) return true;
    }
    return false;
  }

  static bool allowsNumber(const Json& schema, const Json& value) {
    if (!value.is_number()) return true;
    const double number = value.get<double>();
    if (schema.contains("minimum") && number < schema.at("minimum").get<double>()) return false;
    if (schema.contains("maximum") && number > schema.at("maximum").get<double>()) return false;
    // Between two numbers there are decimals that read as one of them.
    if (schema.contains("exclusiveMinimum") && number < schema.at("exclusiveMinimum").get<double>())
      return false;
    return !schema.contains("exclusiveMaximum") ||
           number <= schema.at("exclusiveMaximum").get<double>();
  }

  static bool allowsText(const Json& schema, const Json& value) {
    if (!value.is_string()) return true;
    const auto& text = value.get_ref<const std::string&>();
    size_t length = 0;
    for (const char c : text) length += (c & 0xC0) != 0x80;
    if (schema.contains("minLength") && length < schema.at("minLength").get<size_t>()) return false;
    if (schema.contains("maxLength") && length > schema.at("maxLength").get<size_t>()) return false;
    return !schema.contains("pattern") ||
           std::regex_search(text, std::regex(schema.at("pattern").get<std::string>()));
  }

  bool allowsArray(const Json& schema, const Json& value) const {
    if (!value.is_array()) return true;
    if (schema.contains("minItems") && value.size() < schema.at("minItems").get<size_t>())
      return false;
    if (schema.contains("maxItems") && value.size() > schema.at("maxItems").get<size_t>())
      return false;
    if (!schema.contains("items")) return true;
    for (const Json& item : value) {
      if (!allows(schema.at("items"), item)) return false;
    }
    return true;
  }

  bool allowsObject(const Json& schema, const Json& value) const {
    if (!value.is_object()) return true;
    if (schema.contains("required")) {
      for (const Json& name : schema.at("required")) {
        if (!value.contains(name.get<std::string>())) return false;
      }
    }
    for (const auto& [key, member] : value.items()) {
      if (schema.contains("properties") && schema.at("properties").contains(key)) {
        if (!allows(schema.at("properties").at(key), member)) return false;
      } else if (schema.contains("additionalProperties")) {
        if (!allows(schema.at("additionalProperties"), member)) return false;
      }
    }
    return true;
  }

  const Json& root_;
};

}  // namespace zem::text
