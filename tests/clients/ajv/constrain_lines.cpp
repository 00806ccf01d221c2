// SPDX-License-Identifier: Apache-2.0
// Random schemas with what constraints make of them: constrain_lines SCHEMAS SEED
// A line is {"schema": ..., "produced": [TEXT, ...], "documents": [{"text": TEXT, "taken":
// true or false}, ...]}. For comparing with another program's judgement.
#include <cstdint>
#include <cstdio>
#include <iostream>
#include <memory>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <string>

#include "engine/text/chat/python_text.h"
#include "engine/text/constraint.h"
#include "engine/text/random_schemas.h"

namespace {

using zem::text::Constraint;
using zem::text::ConstraintState;
using zem::text::Json;

constexpr int kProduced = 4;
constexpr int kDocuments = 20;

std::shared_ptr<const Constraint> compiled(const Json& schema) {
  zem::text::ConstraintLimits limits;
  limits.depth = 12;
  std::shared_ptr<const Constraint> constraint;
  const kiv::Status status = Constraint::compile(schema, limits, constraint);
  if (!status.ok()) throw std::runtime_error(status.message() + "\n" + schema.dump());
  return constraint;
}

bool takes(const std::shared_ptr<const Constraint>& constraint, const std::string& text) {
  ConstraintState state = Constraint::begin(constraint);
  return state.advance(text) && state.complete();
}

Json lineOf(zem::text::test::RandomSchemas& random) {
  const Json schema = random.schema();
  const auto constraint = compiled(schema);
  Json line = {{"schema", schema}, {"produced", Json::array()}, {"documents", Json::array()}};
  for (int i = 0; i < kProduced; ++i) {
    const std::string reply = random.reply(constraint, schema);
    if (!reply.empty()) line["produced"].push_back(reply);
  }
  for (int i = 0; i < kDocuments; ++i) {
    const Json document = random.document(schema);
    const std::string text =
        zem::text::pythonJson(i % 2 == 0 ? document : random.damaged(document));
    line["documents"].push_back({{"text", text}, {"taken", takes(constraint, text)}});
  }
  return line;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3) {
    std::fprintf(stderr, "usage: constrain_lines SCHEMAS SEED\n");
    return 2;
  }
  try {
    zem::text::test::RandomSchemas random(static_cast<uint32_t>(std::stoul(argv[2])));
    for (unsigned long left = std::stoul(argv[1]); left > 0; --left) {
      std::cout << lineOf(random).dump() << '\n';
    }
    return 0;
  } catch (const std::exception& error) {
    std::fprintf(stderr, "constrain_lines: %s\n", error.what());
    return 1;
  }
}
