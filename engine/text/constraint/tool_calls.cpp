// SPDX-License-Identifier: Apache-2.0
#include <algorithm>
#include <nlohmann/json.hpp>
#include <unordered_set>
#include <utility>

#include "engine/text/chat/python_text.h"
#include "engine/text/constraint.h"
#include "engine/text/constraint/grammar.h"
#include "engine/text/constraint/schema.h"
#include "engine/text/reply_parser.h"

namespace zem::text {

using grammar::Grammar;
using grammar::RuleId;
using kiv::Status;
using kiv::StatusCode;

namespace {

// Adds rules for the calls of one function.
class ToolReader {
 public:
  ToolReader(const Json& tool, std::string where, const ConstraintLimits& limits, Grammar& rules)
      : where_(std::move(where)), limits_(limits), rules_(rules) {
    const Json* inner = memberOf(tool, "function");
    function_ = inner != nullptr ? inner : &tool;
    if (inner != nullptr) where_ += ".function";
  }

  Status read(std::string& name, RuleId& rule) {
    const Json* given = memberOf(*function_, "name");
    if (given == nullptr || !given->is_string()) return failed(".name", "expected text");
    name = given->get<std::string>();
    if (name.empty() || !canBeRead(name)) return failed(".name", kNames);
    RuleId arguments = 0;
    if (Status status = readArguments(arguments); !status.ok()) return status;
    const RuleId begin = add(grammar::Words{{"<tool_call>\n<function=" + name + ">\n"}});
    const RuleId end = add(grammar::Words{{"\n</tool_call>"}});
    rule = add(grammar::Sequence{{begin, arguments, end}});
    return {};
  }

 private:
  static constexpr const char* kNames = "a name has at most 128 bytes, and none of < > and newline";

  static bool canBeRead(const std::string& name) {
    return name.size() <= kLongestFunctionName && name.find_first_of("<>\n") == std::string::npos;
  }

  Status failed(const std::string& place, const std::string& reason) const {
    return {StatusCode::InvalidFormat, where_ + place + ": " + reason};
  }

  RuleId add(grammar::Rule rule) {
    rules_.rules.push_back(std::move(rule));
    return static_cast<RuleId>(rules_.rules.size() - 1);
  }

  Status readArguments(RuleId& out) {
    grammar::Arguments arguments;
    if (const Json* schema = memberOf(*function_, "parameters")) {
      grammar::SchemaReader reader(*schema, where_ + ".parameters", limits_, rules_);
      if (Status status = readProperties(*schema, reader, arguments); !status.ok()) return status;
      if (Status status = reader.status(); !status.ok()) return status;
    }
    std::sort(arguments.properties.begin(), arguments.properties.end(),
              [](const auto& a, const auto& b) { return a.name < b.name; });
    out = add(std::move(arguments));
    return {};
  }

  Status readProperties(const Json& schema, grammar::SchemaReader& reader,
                        grammar::Arguments& out) {
    if (!schema.is_object()) return failed(".parameters", "expected an object");
    std::unordered_set<std::string> required;
    if (Status status = readRequired(schema, required); !status.ok()) return status;
    const Json* properties = memberOf(schema, "properties");
    if (properties != nullptr && !properties->is_object()) {
      return failed(".parameters/properties", "expected an object");
    }
    if (properties != nullptr) {
      if (properties->size() > grammar::kMostProperties) {
        return failed(".parameters/properties",
                      "more than " + std::to_string(grammar::kMostProperties) + " properties");
      }
      for (const auto& [key, value] : properties->items()) {
        if (!canBeRead(key)) return failed(".parameters/properties", kNames);
        const RuleId rule = reader.readArgument(value, "/properties/" + key);
        out.properties.push_back({key, rule, required.erase(key) > 0});
      }
    }
    if (required.empty()) return {};
    return failed(".parameters/required",
                  quotedStart(*required.begin()) + " is not one of the properties");
  }

  Status readRequired(const Json& schema, std::unordered_set<std::string>& out) {
    const Json* required = memberOf(schema, "required");
    if (required == nullptr) return {};
    for (const Json& name : *required) {
      if (!required->is_array() || !name.is_string()) {
        return failed(".parameters/required", "expected a list of names");
      }
      out.insert(name.get<std::string>());
    }
    return {};
  }

  const Json* function_;
  std::string where_;
  const ConstraintLimits& limits_;
  Grammar& rules_;
};

}  // namespace

Status Constraint::compileToolCalls(const std::vector<Json>& tools, std::string_view name,
                                    bool several, const ConstraintLimits& limits,
                                    std::shared_ptr<const Constraint>& out) {
  out.reset();
  auto rules = std::make_unique<Grammar>();
  rules->mostDepth = limits.depth;
  rules->newlinesOnly = true;
  grammar::Choice calls;
  for (size_t i = 0; i < tools.size(); ++i) {
    std::string found;
    RuleId call = 0;
    ToolReader reader(tools[i], "tools[" + std::to_string(i) + "]", limits, *rules);
    if (Status status = reader.read(found, call); !status.ok()) return status;
    if (name.empty() || found == name) calls.options.push_back(call);
  }
  if (calls.options.empty()) {
    return {StatusCode::InvalidFormat, name.empty()
                                           ? std::string("tools: expected at least one")
                                           : "tools: there is no function " + quotedStart(name)};
  }
  rules->rules.emplace_back(std::move(calls));
  const auto choice = static_cast<RuleId>(rules->rules.size() - 1);
  rules->rules.emplace_back(
      grammar::Repeat{choice, "\n", several ? grammar::kUnlimited : size_t{1}});
  rules->root = choice + 1;
  if (Status status = grammar::finish(*rules, "tools"); !status.ok()) return status;
  out.reset(new Constraint(std::move(rules)));
  return {};
}

}  // namespace zem::text
