// SPDX-License-Identifier: Apache-2.0
#include "server/dialects/fields.h"

#include <charconv>
#include <cmath>
#include <limits>

#include "engine/stop_options.h"
#include "server/api_error.h"

namespace zem::server {
namespace {

constexpr double kLargestExact = 9007199254740992.0;  // 2^53

// Whole numbers may be spelt as 8.0.
std::optional<int64_t> wholeNumber(const Json& value) {
  if (value.is_number_unsigned()) {
    const auto number = value.get<uint64_t>();
    constexpr auto kMost = static_cast<uint64_t>(std::numeric_limits<int64_t>::max());
    return static_cast<int64_t>(std::min(number, kMost));
  }
  if (value.is_number_integer()) return value.get<int64_t>();
  if (!value.is_number_float()) return std::nullopt;
  const double number = value.get<double>();
  if (std::trunc(number) != number || std::abs(number) > kLargestExact) return std::nullopt;
  return static_cast<int64_t>(number);
}

std::string shown(double number) {
  std::string text = jsonText(number);
  return text.ends_with(".0") ? text.substr(0, text.size() - 2) : text;
}

std::string foundAt(const Json* value) {
  if (value == nullptr) return "nothing";
  if (value->is_number() || value->is_boolean()) return jsonText(*value);
  return std::string(text::kindOf(*value));
}

bool saysNothing(const Json& value) {
  if (value.is_boolean()) return !value.get<bool>();
  if (value.is_number()) return value == 0;
  return value.empty() || (value.is_string() && value.get_ref<const std::string&>().empty());
}

LogitBias readBias(const std::string& id, const Json& value) {
  const std::string field = "logit_bias[\"" + id.substr(0, 20) + "\"]";
  LogitBias bias;
  const auto [end, error] = std::from_chars(id.data(), id.data() + id.size(), bias.id);
  if (error != std::errc() || end != id.data() + id.size()) {
    throw ApiError(400, field + ": the name is no id of a token", "logit_bias");
  }
  const bool forbids = value.is_boolean() && !value.get<bool>();
  if (!forbids && (!value.is_number() || std::abs(value.get<double>()) > 100.0)) {
    throw ApiError(400, field + ": found " + foundAt(&value) + ", needed a number from -100 to 100",
                   "logit_bias");
  }
  bias.bias = forbids ? -std::numeric_limits<float>::infinity() : value.get<float>();
  return bias;
}

}  // namespace

void failField(const std::string& field, const Json* found, const std::string& needed) {
  throw ApiError(400, field + ": found " + foundAt(found) + ", needed " + needed, field);
}

Fields::Fields(const Json& object, std::string where) : object_(object), where_(std::move(where)) {
  if (!object.is_object()) failField(where_.empty() ? "body" : where_, &object, "an object");
}

std::string Fields::named(std::string_view name) const {
  return where_.empty() ? std::string(name) : where_ + "." + std::string(name);
}

void Fields::fail(std::string_view name, const std::string& needed) const {
  failField(named(name), find(name), needed);
}

const Json* Fields::find(std::string_view name) const { return text::memberOf(object_, name); }

std::optional<bool> Fields::flag(std::string_view name) const {
  const Json* value = find(name);
  if (value == nullptr) return std::nullopt;
  if (!value->is_boolean()) fail(name, "true or false");
  return value->get<bool>();
}

std::optional<double> Fields::number(std::string_view name, double low, double high) const {
  const Json* value = find(name);
  if (value == nullptr) return std::nullopt;
  const double number = value->is_number() ? value->get<double>() : std::nan("");
  if (!(number >= low && number <= high)) {
    fail(name, "a number from " + shown(low) + " to " + shown(high));
  }
  return number;
}

std::optional<uint64_t> Fields::count(std::string_view name, uint64_t low, uint64_t high) const {
  const Json* value = find(name);
  if (value == nullptr) return std::nullopt;
  const std::optional<int64_t> number = wholeNumber(*value);
  if (!number || *number < 0 || static_cast<uint64_t>(*number) < low ||
      static_cast<uint64_t>(*number) > high) {
    fail(name, "a whole number from " + std::to_string(low) + " to " + std::to_string(high));
  }
  return static_cast<uint64_t>(*number);
}

std::optional<std::string> Fields::text(std::string_view name) const {
  const Json* value = find(name);
  if (value == nullptr) return std::nullopt;
  if (!value->is_string()) fail(name, "a text");
  return value->get<std::string>();
}

const Json* Fields::list(std::string_view name) const {
  const Json* value = find(name);
  if (value != nullptr && !value->is_array()) fail(name, "a list");
  return value;
}

const Json* Fields::object(std::string_view name) const {
  const Json* value = find(name);
  if (value != nullptr && !value->is_object()) fail(name, "an object");
  return value;
}

void Fields::refuse(std::initializer_list<std::string_view> names) const {
  for (const std::string_view name : names) {
    const Json* value = find(name);
    if (value == nullptr || saysNothing(*value)) continue;
    throw ApiError(400, named(name) + ": is not supported; leave it out", named(name),
                   "unsupported_parameter");
  }
}

Json parseBody(std::string_view body) {
  Json json;
  require(text::parseJson(body, "body", json));
  if (!json.is_object()) failField("body", &json, "an object");
  return json;
}

SamplingSettings readSampling(const Fields& fields) {
  SamplingSettings sampling;
  const auto take = [&](std::optional<float>& out, std::string_view name, double low, double high) {
    if (const auto value = fields.number(name, low, high)) out = static_cast<float>(*value);
  };
  take(sampling.temperature, "temperature", 0, 100);
  take(sampling.topP, "top_p", 0, 1);
  take(sampling.minP, "min_p", 0, 1);
  take(sampling.repeatPenalty, "repeat_penalty", 0.01, 100);
  take(sampling.repeatPenalty, "repetition_penalty", 0.01, 100);
  take(sampling.presencePenalty, "presence_penalty", -100, 100);
  take(sampling.frequencyPenalty, "frequency_penalty", -100, 100);
  // -1 is what many programs say for "all".
  const auto isAll = [&](std::string_view name) {
    const Json* value = fields.find(name);
    return value != nullptr && *value == -1;
  };
  if (isAll("top_k")) {
    sampling.topK = 0;
  } else if (const auto topK = fields.count("top_k", 0, std::numeric_limits<uint32_t>::max())) {
    sampling.topK = static_cast<uint32_t>(*topK);
  }
  if (isAll("repeat_last_n")) {
    sampling.penaltyWindow = kWholeReply;
  } else if (const auto window =
                 fields.count("repeat_last_n", 0, std::numeric_limits<uint32_t>::max())) {
    sampling.penaltyWindow = static_cast<size_t>(*window);
  }
  if (!isAll("seed")) {
    sampling.seed = fields.count("seed", 0, std::numeric_limits<int64_t>::max());
  }
  if (const Json* bias = fields.object("logit_bias")) {
    for (const auto& [id, value] : bias->items()) sampling.logitBias.push_back(readBias(id, value));
  }
  return sampling;
}

std::vector<std::string> readStops(const Fields& fields, std::string_view name) {
  std::vector<std::string> stops;
  const Json* value = fields.find(name);
  if (value == nullptr) return stops;
  const auto add = [&](const Json& stop) {
    if (!stop.is_string()) fields.fail(name, "a text or a list of texts");
    if (!stop.get_ref<const std::string&>().empty()) stops.push_back(stop.get<std::string>());
  };
  if (!value->is_array()) {
    add(*value);
    return stops;
  }
  for (const Json& stop : *value) add(stop);
  return stops;
}

uint64_t readTokenLimit(const Fields& fields, std::string_view name) {
  const Json* value = fields.find(name);
  if (value == nullptr || *value == -1) return kNoTokenLimit;
  return *fields.count(name, 1, std::numeric_limits<int64_t>::max());
}

}  // namespace zem::server
