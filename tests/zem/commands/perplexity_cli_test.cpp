// SPDX-License-Identifier: Apache-2.0
#include <gmock/gmock.h>

#include <cmath>

#include "support/tiny_model.h"
#include "zem/commands/talk_support.h"

namespace zemtest {
namespace {

using ::testing::AllOf;
using ::testing::HasSubstr;

class PerplexityTest : public TalkTest {
 protected:
  ProcessResult perplexity(const std::string& text, const Arguments& more = {}) const {
    return zem(with(talk("perplexity", {"-f", folder_.write("text", text)}), more));
  }
  nlohmann::json measured(const std::string& text, Arguments more = {}) const {
    more.emplace_back("--json");
    const ProcessResult result = perplexity(text, more);
    EXPECT_EQ(result.status, 0) << result.err;
    return nlohmann::json::parse(result.out);
  }
  // The logarithm of the probability of `next` behind `text`, as `zem run` has it.
  static double logProbabilityOf(char next, const std::string& text) {
    const ProcessResult result = zem(talk(
        "run", {"--raw", "-p", text, "-n", "1", "--cache", "f32", "--json", "--logprobs", "1000"}));
    const auto lines = linesOf(result.out);
    for (const auto& top : lines.at(0)["top"]) {
      if (top["id"] == static_cast<unsigned char>(next)) return top["logprob"];
    }
    ADD_FAILURE() << "no logarithm for " << next;
    return 0;
  }
};

TEST_F(PerplexityTest, IsThatOfTheTokensOneByOne) {
  const std::string text = "Hello.";
  double sum = 0;
  for (size_t i = 1; i < text.size(); ++i) {
    sum -= logProbabilityOf(text[i], text.substr(0, i));
  }
  const double mean = sum / 5;
  const auto value = measured(text);
  EXPECT_EQ(value["tokens"], 6);
  EXPECT_EQ(value["scored"], 5);
  EXPECT_EQ(value["windows"], 1);
  EXPECT_NEAR(value["mean_nats"], mean, 1e-9);
  EXPECT_NEAR(value["perplexity"], std::exp(mean), 1e-6);
  EXPECT_GT(value["error"], 0.0);
}

TEST_F(PerplexityTest, WindowsScoreEveryTokenButTheFirstOnce) {
  const std::string text(100, 'a');
  EXPECT_EQ(measured(text, {"--window", "100"})["windows"], 1);
  for (const auto& [window, stride, windows] :
       {std::tuple("10", "5", 19), {"10", "9", 11}, {"99", "1", 2}, {"2", "1", 99}}) {
    const auto value = measured(text, {"--window", window, "--stride", stride});
    EXPECT_EQ(value["windows"], windows) << window << " " << stride;
    EXPECT_EQ(value["scored"], 99) << window << " " << stride;
  }
}

TEST_F(PerplexityTest, IsTheSameOnTwoThreads) {
  const std::string text = "The same bits on every machine, whatever it computes with.";
  const auto one = measured(text);
  const ProcessResult two = zem({"perplexity", "-m", model_->string(), "-t", "2", "-f",
                                 folder_.write("text", text), "--json"});
  EXPECT_EQ(nlohmann::json::parse(two.out), one);
}

TEST_F(PerplexityTest, ModelDoesNotDifferFromItself) {
  const auto value = measured("as it is", {"--reference", model_->string()});
  EXPECT_EQ(value["mean_kl_divergence"], 0.0);
  EXPECT_EQ(value["worst_kl_divergence"], 0.0);
  EXPECT_EQ(value["same_best"], 1.0);
  EXPECT_EQ(value["reference"]["perplexity"], value["perplexity"]);
}

TEST_F(PerplexityTest, TableStatesWindowAndStride) {
  const ProcessResult result = perplexity(std::string(40, 'x'), {"--window", "16"});
  EXPECT_EQ(result.err, "");
  EXPECT_THAT(result.out, AllOf(HasSubstr("40, 39 of them scored"),
                                HasSubstr("of 16 tokens, each 8 further"), HasSubstr(" ± ")));
}

TEST_F(PerplexityTest, WhatCannotBeMeasuredIsSaid) {
  const auto refusal = [&](const ProcessResult& result, int status) {
    EXPECT_EQ(result.status, status);
    EXPECT_EQ(result.out, "");
    return result.err;
  };
  EXPECT_THAT(refusal(perplexity(""), 1), HasSubstr("the text has 0 tokens, needs two"));
  EXPECT_THAT(refusal(perplexity("x"), 1), HasSubstr("the text has 1 token, needs two"));
  EXPECT_THAT(refusal(perplexity("xyz", {"--window", "8", "--stride", "8"}), 2),
              HasSubstr("--stride must be less than --window"));
  EXPECT_THAT(refusal(perplexity("xyz", {"--window", "1"}), 2), HasSubstr("--window"));
  EXPECT_THAT(refusal(perplexity("xyz", {"--reference", folder_.path("none")}), 1),
              HasSubstr("cannot read " + folder_.path("none")));
  const std::string tiny = folder_.write("tiny.zem", TinyModel().build());
  EXPECT_THAT(refusal(perplexity("xyz", {"--reference", tiny}), 1),
              HasSubstr("differ, so that the models cannot be compared"));
  EXPECT_THAT(refusal(zem(talk("perplexity", {"-f", folder_.path("none")})), 1),
              HasSubstr("cannot open the text file"));
}

}  // namespace
}  // namespace zemtest
