// SPDX-License-Identifier: Apache-2.0
// The members of a request, read one by one. What is wrong with one throws ApiError 400 that
// names it: "top_p: found a text, needed a number from 0 to 1". A member that is null is absent.
#pragma once

#include <cstdint>
#include <initializer_list>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "engine/sampling_options.h"
#include "server/dialects/json_text.h"

namespace zem::server {

// The object has to outlive this.
class Fields {
 public:
  // `where` is the name of the object itself, "stream_options"; empty for the body.
  explicit Fields(const Json& object, std::string where = {});

  const Json* find(std::string_view name) const;
  std::optional<bool> flag(std::string_view name) const;
  std::optional<double> number(std::string_view name, double low, double high) const;
  std::optional<uint64_t> count(std::string_view name, uint64_t low, uint64_t high) const;
  std::optional<std::string> text(std::string_view name) const;
  const Json* list(std::string_view name) const;
  const Json* object(std::string_view name) const;
  // Members that are known, but that this server cannot obey. False, 0, and what is empty may
  // stand there.
  void refuse(std::initializer_list<std::string_view> names) const;

  std::string named(std::string_view name) const;
  [[noreturn]] void fail(std::string_view name, const std::string& needed) const;

 private:
  const Json& object_;
  std::string where_;
};

// The body of a request. Throws ApiError 400 unless it is a JSON object.
Json parseBody(std::string_view body);

// Throws ApiError 400: "FIELD: found ..., needed ...".
[[noreturn]] void failField(const std::string& field, const Json* found, const std::string& needed);

// Members that several dialects share.
SamplingSettings readSampling(const Fields& fields);
// "stop": a text or a list of texts; empty ones do not count.
std::vector<std::string> readStops(const Fields& fields, std::string_view name);
// A number of tokens, at least 1; without one, and for -1, there is no limit.
uint64_t readTokenLimit(const Fields& fields, std::string_view name);

}  // namespace zem::server
