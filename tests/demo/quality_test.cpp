// SPDX-License-Identifier: Apache-2.0
// What types and arithmetics cost the trained model, in perplexity.
#include <gtest/gtest.h>

#include <cmath>
#include <nlohmann/json.hpp>
#include <string>

#include "support/temp_folder.h"
#include "zem/commands/cli_support.h"

namespace zemtest {
namespace {

const std::string kDemo = std::string(ZEM_TEST_DATA) + "/../../demo/";

class QualityTest : public testing::Test {
 protected:
  std::string converted(const std::string& type) const {
    const std::string file = folder_.path(type + ".zem");
    const ProcessResult result =
        zem({"convert", kDemo + "pip", "-o", file, "--type", type, "-t", "2"});
    EXPECT_EQ(result.status, 0) << result.err;
    return file;
  }
  static double perplexity(const std::string& model, const Arguments& more = {}) {
    Arguments arguments = {"perplexity",           "-m", model, "-f",
                           kDemo + "held_out.txt", "-t", "2",   "--json"};
    arguments.insert(arguments.end(), more.begin(), more.end());
    const ProcessResult result = zem(arguments);
    EXPECT_EQ(result.status, 0) << result.err;
    const auto value = nlohmann::json::parse(result.out, nullptr, false);
    return value.is_object() ? value.value("perplexity", 0.0) : 0;
  }
  static double change(double perplexity, double reference) {
    return std::fabs(perplexity / reference - 1);
  }

  TempFolder folder_;
};

TEST_F(QualityTest, TypesOfEightBitsAndMoreChangeThePerplexityByLessThanHalfAPercent) {
  const double whole = perplexity(converted("f32"));
  ASSERT_GT(whole, 1);
  ASSERT_LT(whole, 10);  // the model foresees much of the text: a random one is near 1,000
  EXPECT_LT(change(perplexity(converted("bf16")), whole), 0.001);
  EXPECT_LT(change(perplexity(converted("q8_0")), whole), 0.005);
}

TEST_F(QualityTest, FastMathAndAHalfCacheChangeThePerplexityByLessThanAThousandth) {
  const double exact = perplexity(kDemo + "demo.zem");
  ASSERT_GT(exact, 1);
  EXPECT_LT(change(perplexity(kDemo + "demo.zem", {"--math", "fast"}), exact), 0.001);
  EXPECT_LT(change(perplexity(kDemo + "demo.zem", {"--cache", "f16"}), exact), 0.001);
}

}  // namespace
}  // namespace zemtest
