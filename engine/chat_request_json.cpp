// SPDX-License-Identifier: Apache-2.0
#include "engine/chat_request_json.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <nlohmann/json.hpp>
#include <utility>

#include "engine/text/chat_message.h"
#include "engine/text/json.h"

namespace zem {
namespace {

using kiv::Status;
using text::Json;

constexpr uint64_t kMostLikeliest = 20;

// Members that servers look at and that say nothing about the reply.
constexpr std::array<std::string_view, 7> kIgnored = {
    "model", "stream", "stream_options", "user", "metadata", "store", "service_tier"};

// A text of a request in a message: its beginning, in quotes.
std::string quoted(const std::string& text) {
  constexpr size_t kShown = 40;
  const Json whole = text.size() <= kShown ? text : text.substr(0, kShown) + "...";
  return whole.dump(-1, ' ', false, Json::error_handler_t::replace);
}

// What stands in a message for a value.
std::string shown(const Json& value) {
  if (value.is_string()) return quoted(value.get_ref<const std::string&>());
  if (value.is_number() || value.is_boolean()) return value.dump();
  return std::string(text::kindOf(value));
}

// Reads the members of an object one by one, keeps the first complaint, and knows at the end
// which members were not asked for.
class MemberReader {
 public:
  explicit MemberReader(const Json& object) : object_(object) {}

  const Status& status() const { return status_; }

  void complain(std::string_view name, std::string_view found, std::string_view expected) {
    keep(kiv::invalidFormat(std::string(name) + ": found " + std::string(found) + ", expected " +
                            std::string(expected)));
  }
  void keep(Status status) {
    if (status_.ok()) status_ = std::move(status);
  }

  // The member, or null where it is absent or null.
  const Json* find(std::string_view name) {
    known_.push_back(name);
    return text::memberOf(object_, name);
  }

  // Each leaves `out` as it is where the member is absent.
  void number(std::string_view name, std::optional<float>& out) {
    const Json* value = find(name);
    if (value == nullptr) return;
    if (!value->is_number()) return complain(name, shown(*value), "a number");
    out = static_cast<float>(value->get<double>());
  }

  template <typename Number>
  void whole(std::string_view name, Number& out) {
    const Json* value = find(name);
    if (value == nullptr) return;
    uint64_t number = 0;
    if (!wholeNumber(*value, std::numeric_limits<NumberIn<Number>>::max(), number)) {
      return complain(name, shown(*value),
                      "a whole number from 0 to " +
                          std::to_string(std::numeric_limits<NumberIn<Number>>::max()));
    }
    out = static_cast<NumberIn<Number>>(number);
  }

  template <typename Switch>
  void onOff(std::string_view name, Switch& out) {
    const Json* value = find(name);
    if (value == nullptr) return;
    if (!value->is_boolean()) return complain(name, shown(*value), "true or false");
    out = value->get<bool>();
  }

  void words(std::string_view name, std::string& out) {
    const Json* value = find(name);
    if (value == nullptr) return;
    if (!value->is_string()) return complain(name, shown(*value), "a text");
    out = value->get<std::string>();
  }

  // Refuses the members that were not asked for.
  void refuseOthers() {
    for (const auto& [name, value] : object_.items()) {
      if (value.is_null() || isKnown(name)) continue;
      return keep(kiv::invalidFormat(quoted(name) + ": is no member of such a request"));
    }
  }

  static bool wholeNumber(const Json& value, uint64_t most, uint64_t& out) {
    if (value.is_number_unsigned()) {
      out = value.get<uint64_t>();
    } else if (value.is_number_float() && value.get<double>() >= 0 &&
               value.get<double>() < 0x1p53 &&
               std::trunc(value.get<double>()) == value.get<double>()) {
      out = static_cast<uint64_t>(value.get<double>());
    } else {
      return false;
    }
    return out <= most;
  }

 private:
  template <typename Number>
  struct Inner {
    using Type = Number;
  };
  template <typename Number>
  struct Inner<std::optional<Number>> {
    using Type = Number;
  };
  template <typename Number>
  using NumberIn = typename Inner<Number>::Type;

  bool isKnown(std::string_view name) const {
    return std::find(known_.begin(), known_.end(), name) != known_.end() ||
           std::find(kIgnored.begin(), kIgnored.end(), name) != kIgnored.end();
  }

  const Json& object_;
  std::vector<std::string_view> known_;
  Status status_;
};

void readBias(MemberReader& reader, std::vector<LogitBias>& out) {
  const Json* all = reader.find("logit_bias");
  if (all == nullptr) return;
  if (!all->is_object()) {
    return reader.complain("logit_bias", shown(*all), "an object from ids to numbers");
  }
  for (const auto& [key, value] : all->items()) {
    LogitBias bias;
    const char* end = key.data() + key.size();
    const auto [stop, error] = std::from_chars(key.data(), end, bias.id);
    if (error != std::errc() || stop != end) {
      return reader.complain("logit_bias", quoted(key), "the id of a token");
    }
    if (!value.is_number()) {
      return reader.complain("logit_bias[" + quoted(key) + "]", shown(value), "a number");
    }
    bias.bias = static_cast<float>(value.get<double>());
    out.push_back(bias);
  }
}

void readStop(MemberReader& reader, std::vector<std::string>& out) {
  const Json* stop = reader.find("stop");
  if (stop == nullptr) return;
  if (stop->is_string()) {
    out.push_back(stop->get<std::string>());
    return;
  }
  if (!stop->is_array()) return reader.complain("stop", shown(*stop), "a text or a list of texts");
  for (size_t i = 0; i < stop->size(); ++i) {
    const Json& one = (*stop)[i];
    if (!one.is_string()) {
      return reader.complain("stop[" + std::to_string(i) + "]", shown(one), "a text");
    }
    out.push_back(one.get<std::string>());
  }
}

void readLogProbabilities(MemberReader& reader, std::optional<size_t>& out) {
  const std::string expected = "a whole number from 0 to " + std::to_string(kMostLikeliest);
  if (const Json* asked = reader.find("logprobs"); asked != nullptr) {
    uint64_t count = 0;
    if (!asked->is_boolean() && !MemberReader::wholeNumber(*asked, kMostLikeliest, count)) {
      return reader.complain("logprobs", shown(*asked), "true, false or " + expected);
    }
    if (!asked->is_boolean() || asked->get<bool>()) out = count;
  }
  if (const Json* asked = reader.find("top_logprobs"); asked != nullptr) {
    uint64_t count = 0;
    if (!MemberReader::wholeNumber(*asked, kMostLikeliest, count)) {
      return reader.complain("top_logprobs", shown(*asked), expected);
    }
    if (!out && count != 0) {
      return reader.complain("top_logprobs", shown(*asked), "logprobs to be true");
    }
    if (out) out = count;
  }
}

void readSampling(MemberReader& reader, SamplingSettings& out) {
  reader.number("temperature", out.temperature);
  reader.number("top_p", out.topP);
  reader.number("min_p", out.minP);
  reader.number("repetition_penalty", out.repeatPenalty);
  reader.number("presence_penalty", out.presencePenalty);
  reader.number("frequency_penalty", out.frequencyPenalty);
  reader.whole("top_k", out.topK);
  reader.whole("penalty_window", out.penaltyWindow);
  reader.whole("seed", out.seed);
  readBias(reader, out.logitBias);
}

// For ReplySettings and ChatRequest, which name these members alike.
template <typename Settings>
void readSettings(MemberReader& reader, Settings& out) {
  readSampling(reader, out.sampling);
  readStop(reader, out.stopTexts);
  reader.whole("max_tokens", out.maxTokens);
  reader.whole("max_completion_tokens", out.maxTokens);
  readLogProbabilities(reader, out.logProbabilities);
  uint64_t replies = 1;
  reader.whole("n", replies);
  if (replies != 1) reader.complain("n", std::to_string(replies), "1");
}

void readToolChoice(MemberReader& reader, ChatRequest& out) {
  const Json* choice = reader.find("tool_choice");
  if (choice == nullptr) return;
  const Json* function = text::memberOf(*choice, "function");
  const Json* name = function != nullptr ? text::memberOf(*function, "name") : nullptr;
  if (name != nullptr && name->is_string()) {
    out.toolChoice = ToolChoice::Required;
    out.onlyTool = name->get<std::string>();
  } else if (*choice == "auto") {
    out.toolChoice = ToolChoice::Auto;
  } else if (*choice == "none") {
    out.toolChoice = ToolChoice::None;
  } else if (*choice == "required") {
    out.toolChoice = ToolChoice::Required;
  } else {
    reader.complain("tool_choice", shown(*choice),
                    "\"auto\", \"none\", \"required\" or "
                    "{\"type\": \"function\", \"function\": {\"name\": TEXT}}");
  }
}

void readResponseFormat(MemberReader& reader, std::optional<Json>& out) {
  const Json* format = reader.find("response_format");
  if (format == nullptr) return;
  if (!format->is_object()) return reader.complain("response_format", shown(*format), "an object");
  const Json type = format->contains("type") ? format->at("type") : Json();
  if (type == "text") return;
  if (type == "json_object") {
    out = Json{{"type", "object"}};
    return;
  }
  if (type != "json_schema") {
    return reader.complain("response_format.type", shown(type),
                           "\"text\", \"json_object\" or \"json_schema\"");
  }
  const Json* described = text::memberOf(*format, "json_schema");
  const Json* schema = described != nullptr ? text::memberOf(*described, "schema") : nullptr;
  if (schema == nullptr) {
    return reader.complain("response_format.json_schema.schema", "nothing", "a JSON schema");
  }
  out = *schema;
}

void readThinkingBudget(MemberReader& reader, std::optional<uint64_t>& out) {
  const Json* budget = reader.find("thinking_budget");
  if (budget == nullptr || *budget == -1) return;
  uint64_t tokens = 0;
  if (!MemberReader::wholeNumber(*budget, std::numeric_limits<uint64_t>::max(), tokens)) {
    return reader.complain("thinking_budget", shown(*budget), "a number of tokens, or -1");
  }
  out = tokens;
}

void readConversation(MemberReader& reader, ChatRequest& out) {
  const Json* messages = reader.find("messages");
  const Json* tools = reader.find("tools");
  if (messages == nullptr) return reader.complain("messages", "nothing", "a list of messages");
  reader.keep(text::readMessages(*messages, out.messages));
  if (tools != nullptr) reader.keep(text::readTools(*tools, out.tools));
  readToolChoice(reader, out);
  reader.onOff("parallel_tool_calls", out.severalCalls);
}

void readFormat(MemberReader& reader, text::RenderOptions& out) {
  reader.onOff("enable_thinking", out.thinking);
  reader.onOff("preserve_thinking", out.preserveThinking);
  reader.onOff("add_vision_id", out.numberMedia);
  reader.onOff("merge_system", out.mergeSystem);
  reader.onOff("omit_empty_thinking", out.omitEmptyThinking);
  reader.words("reasoning_effort", out.reasoningEffort);
}

Status parseObject(std::string_view text, Json& out) {
  if (Status status = text::parseJson(text, "request", out); !status.ok()) return status;
  if (out.is_object()) return {};
  return kiv::invalidFormat("request: found " + std::string(text::kindOf(out)) +
                            ", expected an object");
}

}  // namespace

Status readReplySettings(std::string_view json, ReplySettings& out) {
  Json object;
  if (Status status = parseObject(json, object); !status.ok()) return status;
  out = ReplySettings();
  MemberReader reader(object);
  readSettings(reader, out);
  reader.refuseOthers();
  return reader.status();
}

Status readChatRequest(std::string_view json, ChatRequest& out) {
  Json object;
  if (Status status = parseObject(json, object); !status.ok()) return status;
  out = ChatRequest();
  MemberReader reader(object);
  readConversation(reader, out);
  readFormat(reader, out.format);
  readThinkingBudget(reader, out.thinkingBudget);
  readResponseFormat(reader, out.schema);
  readSettings(reader, out);
  reader.refuseOthers();
  return reader.status();
}

}  // namespace zem
