// SPDX-License-Identifier: Apache-2.0
#include "engine/text/json.h"

#include <charconv>
#include <nlohmann/json.hpp>
#include <system_error>
#include <unordered_map>
#include <utility>
#include <vector>

namespace zem::text {
namespace {

// The library's messages begin with "[json.exception.parse_error.101] parse error ", and
// end with what was read last, which need not be UTF-8.
std::string reasonOf(const nlohmann::detail::exception& error) {
  const std::string text = error.what();
  const size_t bracket = text.find("] ");
  const size_t begin = bracket == std::string::npos ? 0 : bracket + 2;
  return text.substr(begin, text.find("; last read: ") - begin);
}

// Builds the value. The library's own builder looks through all keys of an ordered
// object for each new one, which takes hours for an object of a million keys.
class Builder final : public nlohmann::json_sax<Json> {
 public:
  explicit Builder(Json& root) : root_(root) {}

  const std::string& error() const { return error_; }

  bool null() override { return add(nullptr); }
  bool boolean(bool value) override { return add(value); }
  bool number_integer(int64_t value) override { return add(value); }
  bool number_unsigned(uint64_t value) override { return add(value); }
  bool number_float(double value, const std::string& text) override {
    if (text.find_first_of(".eE") == std::string::npos) {
      return fail("the integer " + text.substr(0, 40) + " needs more than 64 bits");
    }
    return add(value);
  }
  bool string(std::string& value) override { return add(std::move(value)); }
  bool binary(Json::binary_t&) override { return fail("binary data"); }
  bool start_object(size_t) override { return open(Json::object()); }
  bool end_object() override { return close(); }
  bool start_array(size_t) override { return open(Json::array()); }
  bool end_array() override { return close(); }

  bool key(std::string& text) override {
    Open& object = open_.back();
    Json::object_t::Container& members = object.value->get_ref<Json::object_t&>();
    const auto [found, isNew] = object.keys.try_emplace(text, members.size());
    if (isNew) members.emplace_back(std::move(text), nullptr);
    slot_ = &members[found->second].second;
    return true;
  }

  bool parse_error(size_t, const std::string&,
                   const nlohmann::detail::exception& exception) override {
    return fail(reasonOf(exception));
  }

 private:
  struct Open {
    Json* value;
    std::unordered_map<std::string, size_t> keys;  // of an object, with their places
  };

  bool fail(std::string reason) {
    error_ = std::move(reason);
    return false;
  }

  // Where the next value goes.
  Json& place() {
    if (open_.empty()) return root_;
    if (open_.back().value->is_object()) return *slot_;
    auto& elements = open_.back().value->get_ref<Json::array_t&>();
    return elements.emplace_back(nullptr);
  }

  template <typename Value>
  bool add(Value&& value) {
    place() = Json(std::forward<Value>(value));
    return true;
  }

  bool open(Json empty) {
    if (open_.size() == kMaxJsonDepth) {
      return fail("nested deeper than " + std::to_string(kMaxJsonDepth) + " levels");
    }
    Json& value = place();
    value = std::move(empty);
    open_.push_back({&value, {}});
    return true;
  }

  bool close() {
    open_.pop_back();
    return true;
  }

  Json& root_;
  Json* slot_ = nullptr;  // of the key that was read last
  std::vector<Open> open_;
  std::string error_;
};

// A step of a reference, in which "~1" stands for a slash and "~0" for a tilde.
std::string unescapedStep(std::string_view step) {
  std::string text;
  for (size_t i = 0; i < step.size(); ++i) {
    const bool escape = step[i] == '~' && i + 1 < step.size();
    text += !escape ? step[i] : step[++i] == '1' ? '/' : '~';
  }
  return text;
}

const Json* elementOf(const Json& list, std::string_view step) {
  size_t index = 0;
  const auto result = std::from_chars(step.data(), step.data() + step.size(), index);
  const bool whole = result.ec == std::errc() && result.ptr == step.data() + step.size();
  return whole && index < list.size() ? &list[index] : nullptr;
}

}  // namespace

kiv::Status parseJson(std::string_view text, std::string_view where, Json& out) {
  out = nullptr;
  Builder builder(out);
  if (Json::sax_parse(text.begin(), text.end(), &builder)) return {};
  out = nullptr;
  return {kiv::StatusCode::InvalidFormat, std::string(where) + ": " + builder.error()};
}

std::string_view kindOf(const Json& value) {
  switch (value.type()) {
    case Json::value_t::null:
      return "null";
    case Json::value_t::boolean:
      return value.get<bool>() ? "true" : "false";
    case Json::value_t::string:
      return "text";
    case Json::value_t::array:
      return "a list";
    case Json::value_t::object:
      return "an object";
    default:
      return "a number";
  }
}

const Json* memberOf(const Json& object, std::string_view key) {
  if (!object.is_object()) return nullptr;
  const auto found = object.find(key);
  return found == object.end() || found->is_null() ? nullptr : &*found;
}

const Json* referenced(const Json& root, std::string_view reference) {
  if (!reference.starts_with('#')) return nullptr;
  reference.remove_prefix(1);
  const Json* at = &root;
  while (!reference.empty()) {
    if (reference[0] != '/') return nullptr;
    reference.remove_prefix(1);
    const std::string_view step = reference.substr(0, reference.find('/'));
    reference.remove_prefix(step.size());
    if (at->is_object()) {
      const auto found = at->find(unescapedStep(step));
      at = found == at->end() ? nullptr : &*found;
    } else {
      at = at->is_array() ? elementOf(*at, step) : nullptr;
    }
    if (at == nullptr) return nullptr;
  }
  return at;
}

}  // namespace zem::text
