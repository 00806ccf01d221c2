// SPDX-License-Identifier: Apache-2.0
// `zem bench`. Speeds are not held: a row is, and that it is a positive number.
#include <gmock/gmock.h>

#include "zem/commands/talk_support.h"

namespace zemtest {
namespace {

using ::testing::AllOf;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::StartsWith;

class BenchEngine : public TalkTest {
 protected:
  static ProcessResult run(const Arguments& more) {
    Arguments few = {"-r", "2"};
    few.insert(few.end(), more.begin(), more.end());
    return zem(talk("bench", few));
  }
};

TEST_F(BenchEngine, MeasuresEveryCombinationInItsOrder) {
  const ProcessResult result = run(
      {"-p", "20", "-n", "5", "-d", "0,40", "-np", "1,3", "--math", "exact,fast", "-o", "json"});
  ASSERT_EQ(result.status, 0) << result.err;
  const auto json = nlohmann::json::parse(result.out);
  std::vector<std::string> names;
  for (const auto& test : json.at("tests")) {
    names.push_back(test.at("test").get<std::string>() + " " + test.at("math").get<std::string>());
    ASSERT_EQ(test.at("repetitions").size(), 2U);
    for (const auto& rate : test.at("repetitions")) EXPECT_GT(rate.get<double>(), 0);
  }
  EXPECT_THAT(names, ElementsAre("pp20 exact", "pp20 fast", "tg5 exact", "tg5 fast",
                                 "pp20 x 3 exact", "pp20 x 3 fast", "tg5 x 3 exact", "tg5 x 3 fast",
                                 "pp20 @ d40 exact", "pp20 @ d40 fast", "tg5 @ d40 exact",
                                 "tg5 @ d40 fast", "pp20 @ d40 x 3 exact", "pp20 @ d40 x 3 fast",
                                 "tg5 @ d40 x 3 exact", "tg5 @ d40 x 3 fast"));
}

TEST_F(BenchEngine, ShareOfOneConversationStandsBesideAll) {
  const ProcessResult result = run({"-n", "5", "-np", "4", "-o", "csv"});
  EXPECT_THAT(result.out, StartsWith("model,weight_bytes,params,backend,threads,test,"
                                     "tokens_per_second,deviation,gigabytes_per_second,math,"
                                     "sequences\n"));
  EXPECT_THAT(result.out, AllOf(HasSubstr(",tg5 x 4,"), HasSubstr(",exact,4\n")));
  EXPECT_THAT(run({"-n", "5"}).out,
              AllOf(StartsWith("| model | size | params | backend | threads | math | test | t/s |"),
                    HasSubstr("| each |"), HasSubstr("| exact | tg5 | ")));
}

TEST_F(BenchEngine, WhatItCannotMeasureIsRefused) {
  EXPECT_EQ(run({"--math", "exact,rough"}).status, 2);
  EXPECT_THAT(run({"--math", "exact,rough"}).err, HasSubstr("\"rough\" is none of exact and fast"));
  EXPECT_EQ(run({"-np", "0"}).status, 2);
  const ProcessResult deep = run({"-d", "5000"});
  EXPECT_EQ(deep.status, 1);
  EXPECT_THAT(deep.err, HasSubstr("positions"));
  EXPECT_EQ(zem({"bench", "-m", folder_.path("none.zem")}).status, 1);
}

}  // namespace
}  // namespace zemtest
