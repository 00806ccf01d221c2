// SPDX-License-Identifier: Apache-2.0
// A schema, and behind a byte FF, which no text has, bytes that choose a reply: of the
// bytes that are allowed next, the one that comes at or behind each. What is complete is
// JSON, what is not can go on, and a mask agrees with tokens tried one by one.
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>
#include <vector>

#include "engine/text/constraint.h"
#include "fuzz.h"

namespace {

using namespace zem::text;
using zemfuzz::require;

constexpr size_t kLongestReply = 300;

const std::vector<std::string>& tokens() {
  static const std::vector<std::string> texts = {
      "",  "{", "{\"", "\"", "\":", ",", "}",  "[",  "]", "null", "nul",         "a",
      "b", "1", "12",  "-",  ".",   " ", "\n", "\\", "ä", "\xC3", "<tool_call>", "<parameter="};
  return texts;
}

void checkMask(const ConstraintState& state) {
  static const TokenTexts texts(tokens());
  std::vector<bool> allowed;
  state.mask(texts, allowed);
  for (size_t id = 0; id < tokens().size(); ++id) {
    const bool taken = !tokens()[id].empty() && state.accepts(tokens()[id]);
    require(allowed[id] == taken, "a mask that is wrong");
  }
}

bool advanceNear(ConstraintState& state, uint8_t wanted, std::string& reply) {
  for (unsigned i = 0; i < 256; ++i) {
    const auto byte = static_cast<uint8_t>(wanted + i);
    if (!state.advance(byte)) continue;
    reply += static_cast<char>(byte);
    return true;
  }
  return false;
}

// `ends`: whatever was begun can be ended.
void walk(const std::shared_ptr<const Constraint>& constraint, std::string_view bytes, bool isJson,
          bool ends) {
  ConstraintState state = Constraint::begin(constraint);
  std::string reply;
  for (const char byte : bytes.substr(0, kLongestReply)) {
    if (!advanceNear(state, static_cast<uint8_t>(byte), reply)) {
      require(!ends || state.complete(), "a reply that can neither end nor go on");
      break;
    }
    if (state.complete()) require(!isJson || Json::accept(reply), "a reply that is not JSON");
  }
  checkMask(state);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  const std::string_view schemaText = text.substr(0, text.find('\xFF'));
  const std::string_view bytes = text.substr(std::min(schemaText.size() + 1, text.size()));
  Json schema;
  if (!parseJson(schemaText, "schema", schema).ok()) return 0;
  ConstraintLimits limits;
  limits.depth = 8;
  limits.rules = 500;
  limits.patternStates = 100;
  std::shared_ptr<const Constraint> constraint;
  kiv::Status status = Constraint::compile(schema, limits, constraint);
  require(status.ok() == (constraint != nullptr), "a failure with a constraint");
  if (status.ok()) walk(constraint, bytes, true, true);
  require(status.ok() || !status.message().empty(), "a failure without a message");
  const std::vector<Json> tools = {{{"name", "f"}, {"parameters", schema}}};
  status = Constraint::compileToolCalls(tools, "", true, limits, constraint);
  require(status.ok() == (constraint != nullptr), "a failure with a constraint");
  const bool mayStick = schemaText.find("pattern") != std::string_view::npos;
  if (status.ok()) walk(constraint, bytes, false, !mayStick);
  return 0;
}
