// SPDX-License-Identifier: Apache-2.0
/// \file
/// The inside of a SchemaReader: it reads one schema after the other, each into rules of its own.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

#include "engine/text/constraint/schema.h"
#include "engine/text/constraint/schema_keywords.h"
#include "engine/text/reply_arguments.h"

namespace zem::text::grammar {

class SchemaReader::State {
 public:
  State(const Json& document, std::string where, const ConstraintLimits& limits, Grammar& grammar)
      : document_(document), where_(std::move(where)), limits_(limits), grammar_(grammar) {}

  RuleId readDocument();
  RuleId readArgument(const Json& schema, const std::string& path);
  kiv::Status status() const;

 private:
  struct Pending {
    const Json* schema;
    std::string path;
    RuleId rule;
  };

  // Walking from schema to schema: schema.cpp.
  void fail(const std::string& path, const std::string& reason,
            kiv::StatusCode code = kiv::StatusCode::InvalidFormat);
  void failExpected(const std::string& path, const std::string& expected, const Json& found);
  void notSupported(const std::string& path, const std::string& what);
  RuleId add(Rule rule);
  RuleId reserve(const Json& schema, std::string path);
  void readPending();
  void readSchema(const Json& schema, const std::string& path, std::vector<RuleId>& options);
  void checkKeywords(const Json& schema, const std::string& path);
  void checkAlone(const Json& schema, const std::string& path, std::string_view keyword,
                  bool besideType);
  void readReference(const Json& schema, const std::string& path, std::vector<RuleId>& options);
  void readAlternatives(const Json& schema, const std::string& path, const std::string& keyword,
                        std::vector<RuleId>& options);
  bool readTypes(const Json& schema, const std::string& path, Types& types);

  // The rules of one schema: schema_rules.cpp.
  void readValues(const Json& schema, const std::string& path, const Types& types,
                  std::vector<RuleId>& options);
  void addValues(const std::vector<const Json*>& values, const Types& types,
                 std::vector<RuleId>& options);
  static Words sorted(Words words);
  RuleId constant(const Json& value);
  RuleId structured(const Json& value);
  static void sortProperties(std::vector<Property>& properties);
  void tooManyProperties(const std::string& path);
  void addTypes(const Json& schema, const std::string& path, const Types& types,
                std::vector<RuleId>& options);
  Number number(const Json& schema, const std::string& path, bool integer);
  size_t count(const Json& schema, const std::string& path, const char* keyword, size_t otherwise);
  Text text(const Json& schema, const std::string& path);
  Array array(const Json& schema, const std::string& path);
  Object object(const Json& schema, const std::string& path);
  std::vector<Property> properties(const Json& schema, const std::string& path, RuleId additional);
  RuleId any();

  // Arguments of tool calls: schema_arguments.cpp.
  RuleId argument(const Json& schema, const std::string& path);
  void readRaw(const Json& schema, const std::string& path, std::vector<RuleId>& options,
               std::vector<std::pair<const Json*, std::string>>& queue);
  void readRawValues(const Json& schema, const std::string& path, const Types& types,
                     std::vector<RuleId>& options);

  const Json& document_;
  std::string where_;
  const ConstraintLimits& limits_;
  Grammar& grammar_;
  std::unordered_map<const Json*, RuleId> known_;
  std::deque<Pending> pending_;
  RuleId any_ = kNoRule;
  size_t values_ = 0;
  kiv::Status status_;
  std::vector<std::string> unsupported_;
};

}  // namespace zem::text::grammar
