// SPDX-License-Identifier: Apache-2.0
// The model that travels with the sources, asked what it has not seen in training.
#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "demo/behaviour/behaviour.h"
#include "support/status_matchers.h"
#include "support/whole_file.h"

namespace zem::behaviour {
namespace {

using zemtest::IsOk;

const std::string kFolder = std::string(ZEM_TEST_DATA) + "/../../demo/";

// All cases, once for all tests of this file.
const std::map<std::string, Rate>& rates() {
  static const std::map<std::string, Rate> kRates = [] {
    std::map<std::string, Rate> byKind;
    std::vector<Case> cases;
    EXPECT_THAT(readCases(zemtest::wholeFile(kFolder + "cases.jsonl"), cases), IsOk());
    EngineOptions options;
    options.threads = 2;
    options.sequences = 8;
    options.waiting = cases.size();
    std::unique_ptr<Engine> engine;
    EXPECT_THAT(Engine::open(kFolder + "demo.zem", options, engine), IsOk());
    std::vector<Rate> measured;
    if (engine != nullptr) {
      EXPECT_THAT(measure(*engine, cases, measured), IsOk());
    }
    for (Rate& rate : measured) byKind[rate.kind] = std::move(rate);
    return byKind;
  }();
  return kRates;
}

struct Bound {
  const char* kind;
  double least;  // part of the replies that are right
};

class TrainedModel : public testing::TestWithParam<Bound> {};

TEST_P(TrainedModel, IsRightAsOftenAsItsPageSays) {
  const auto found = rates().find(GetParam().kind);
  ASSERT_NE(found, rates().end());
  const Rate& rate = found->second;
  ASSERT_GE(rate.asked, 20U);
  std::string failures;
  for (const std::string& line : rate.failures) failures += "\n  " + line;
  EXPECT_GE(static_cast<double>(rate.passed), GetParam().least * static_cast<double>(rate.asked))
      << rate.passed << " of " << rate.asked << failures;
}

std::string nameOf(const testing::TestParamInfo<Bound>& info) {
  std::string name = info.param.kind;
  std::erase_if(name, [](char c) { return c == ' ' || c == ','; });
  return name;
}

INSTANTIATE_TEST_SUITE_P(Kinds, TrainedModel,
                         testing::Values(Bound{"sum", 0.95}, Bound{"sum, thinking", 0.95},
                                         Bound{"thinking block", 0.95}, Bound{"unknown", 0.95},
                                         Bound{"tool call", 0.75}, Bound{"tool result", 0.95},
                                         Bound{"remembered name", 0.95}, Bound{"story", 0.95},
                                         Bound{"fact", 0.65}),
                         nameOf);

}  // namespace
}  // namespace zem::behaviour
