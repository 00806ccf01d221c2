// SPDX-License-Identifier: Apache-2.0
// Random schemas: what a constraint produces satisfies them, and of random documents it
// takes those that satisfy them and no others. 300 schemas with ZEM_ALL=1, else the first
// of them. tests/clients/ajv asks another program about the same.
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "engine/text/chat/python_text.h"
#include "engine/text/constraint.h"
#include "engine/text/random_schemas.h"
#include "engine/text/schema_validator.h"
#include "support/thorough.h"

namespace zem::text {
namespace {

const size_t kSchemas = zemtest::thorough() ? 300 : 60;

struct CompiledCase {
  Json schema;
  std::shared_ptr<const Constraint> constraint;
};

CompiledCase nextCase(test::RandomSchemas& random, size_t depth = 64) {
  CompiledCase made{random.schema(), nullptr};
  ConstraintLimits limits;
  limits.depth = depth;
  const kiv::Status status = Constraint::compile(made.schema, limits, made.constraint);
  EXPECT_TRUE(status.ok()) << status.message() << "\n" << made.schema;
  return made;
}

bool takes(const CompiledCase& made, std::string_view text) {
  ConstraintState state = Constraint::begin(made.constraint);
  return state.advance(text) && state.complete();
}

TEST(ConstraintSchemas, WhateverIsProducedSatisfiesTheSchema) {
  test::RandomSchemas random(1);
  size_t endless = 0;
  for (size_t i = 0; i < kSchemas; ++i) {
    const CompiledCase made = nextCase(random, 8);
    ASSERT_NE(made.constraint, nullptr);
    for (int round = 0; round < 3; ++round) {
      const std::string reply = random.reply(made.constraint, made.schema);
      if (reply.empty()) {
        ++endless;
        continue;
      }
      const Json value = Json::parse(reply, nullptr, false);
      ASSERT_FALSE(value.is_discarded()) << reply;
      EXPECT_TRUE(SchemaValidator(made.schema).allows(value)) << made.schema << "\n" << reply;
    }
  }
  EXPECT_LT(endless, kSchemas / 2);  // of three times as many
}

TEST(ConstraintSchemas, DocumentsOfTheSchemaAreTaken) {
  test::RandomSchemas random(2);
  for (size_t i = 0; i < kSchemas; ++i) {
    const CompiledCase made = nextCase(random);
    ASSERT_NE(made.constraint, nullptr);
    for (int round = 0; round < 10; ++round) {
      const Json document = random.document(made.schema);
      ASSERT_TRUE(SchemaValidator(made.schema).allows(document)) << made.schema << "\n" << document;
      EXPECT_TRUE(takes(made, pythonJson(document))) << made.schema << "\n" << document;
      EXPECT_TRUE(takes(made, document.dump(2))) << made.schema << "\n" << document;
    }
  }
}

TEST(ConstraintSchemas, OfOtherDocumentsThoseThatSatisfyTheSchemaAreTaken) {
  test::RandomSchemas random(3);
  size_t taken = 0;
  size_t refused = 0;
  for (size_t i = 0; i < kSchemas; ++i) {
    const CompiledCase made = nextCase(random);
    ASSERT_NE(made.constraint, nullptr);
    for (int round = 0; round < 20; ++round) {
      const Json document = random.damaged(random.document(made.schema));
      const bool allowed = SchemaValidator(made.schema).allows(document);
      EXPECT_EQ(takes(made, pythonJson(document)), allowed) << made.schema << "\n" << document;
      ++(allowed ? taken : refused);
    }
  }
  EXPECT_GT(taken, kSchemas);
  EXPECT_GT(refused, kSchemas);
}

}  // namespace
}  // namespace zem::text
