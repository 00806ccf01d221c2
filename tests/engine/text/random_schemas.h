// SPDX-License-Identifier: Apache-2.0
// Random JSON schemas of the keywords that constraints know, documents of them, and
// replies that constraints allow.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <nlohmann/json.hpp>
#include <random>
#include <string>
#include <vector>

#include "engine/text/constraint.h"
#include "engine/text/json.h"

namespace zem::text::test {

// Makes the same schemas and documents from the same seed.
class RandomSchemas {
 public:
  explicit RandomSchemas(uint32_t seed) : random_(seed) {}

  // Some document satisfies it. Nested at most five deep but for references to itself,
  // which no document has to follow.
  Json schema();

  // A document of a schema that schema() made.
  Json document(const Json& schema);
  // The same with one part changed, so that it may satisfy the schema or not.
  Json damaged(Json document);

  // A reply of random bytes; after the first ones rather those that lead to an end. Empty
  // when it got longer than 10,000 bytes, so limit the constraint's depth.
  std::string reply(const std::shared_ptr<const Constraint>& constraint, const Json& schema);

 private:
  size_t below(size_t count) { return random_() % count; }
  bool oneIn(size_t count) { return below(count) == 0; }
  template <typename Value>
  const Value& oneOf(const std::vector<Value>& values) {
    return values[below(values.size())];
  }

  Json part(int depth);
  Json text();
  Json number(bool integer);
  Json array(int depth);
  Json object(int depth);
  Json scalar();

  Json anything(int depth);
  Json documentOf(const Json& schema, int depth);
  Json documentOfType(const std::string& type, const Json& schema, int depth);
  Json textOf(const Json& schema);
  Json numberOf(const Json& schema, bool integer);
  Json arrayOf(const Json& schema, int depth);
  Json objectOf(const Json& schema, int depth);

  std::mt19937 random_;
  Json root_;  // of the schema of a document that is being made
};

}  // namespace zem::text::test
