// SPDX-License-Identifier: Apache-2.0
#include "engine/sampling_options.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <string>

#include "support/status_matchers.h"

namespace zemtest {

using namespace zem;

namespace {

constexpr float kInf = std::numeric_limits<float>::infinity();

TEST(SamplingOptions, AreValidAsConstructedAndAsRecommended) {
  EXPECT_THAT(validate(SamplingOptions{}, 0), IsOk());
  EXPECT_THAT(validate(defaultSampling(true), 0), IsOk());
  EXPECT_THAT(validate(defaultSampling(false), 0), IsOk());
}

TEST(SamplingOptions, RecommendedOnesDependOnThinking) {
  const SamplingOptions thinking = defaultSampling(true);
  EXPECT_EQ(thinking.temperature, 1.0F);
  EXPECT_EQ(thinking.topP, 0.95F);
  EXPECT_EQ(thinking.topK, 20U);
  EXPECT_EQ(thinking.presencePenalty, 1.5F);
  const SamplingOptions direct = defaultSampling(false);
  EXPECT_EQ(direct.temperature, 0.7F);
  EXPECT_EQ(direct.topP, 0.8F);
  EXPECT_EQ(direct.topK, 20U);
  EXPECT_EQ(direct.presencePenalty, 1.5F);
}

struct Field {
  const char* name;
  float SamplingOptions::*value;
  float least;
  float most;
  const char* range;
};

const Field kFields[] = {
    {"temperature", &SamplingOptions::temperature, 0.0F, 100.0F, "0 to 100"},
    {"top-p", &SamplingOptions::topP, 0.0F, 1.0F, "0 to 1"},
    {"min-p", &SamplingOptions::minP, 0.0F, 1.0F, "0 to 1"},
    {"repeat penalty", &SamplingOptions::repeatPenalty, 0.01F, 100.0F, "0.01 to 100"},
    {"presence penalty", &SamplingOptions::presencePenalty, -100.0F, 100.0F, "-100 to 100"},
    {"frequency penalty", &SamplingOptions::frequencyPenalty, -100.0F, 100.0F, "-100 to 100"},
};

TEST(SamplingOptions, EveryFieldHasItsRange) {
  for (const Field& field : kFields) {
    SamplingOptions options;
    for (const float good : {field.least, field.most}) {
      options.*field.value = good;
      EXPECT_THAT(validate(options, 0), IsOk()) << field.name << " " << good;
    }
    for (const float bad : {std::nextafter(field.least, -kInf), std::nextafter(field.most, kInf),
                            kInf, -kInf, std::numeric_limits<float>::quiet_NaN()}) {
      options.*field.value = bad;
      const kiv::Status status = validate(options, 0);
      EXPECT_EQ(status.code(), kiv::StatusCode::InvalidFormat) << field.name << " " << bad;
    }
  }
}

TEST(SamplingOptions, AMessageNamesFieldValueAndRange) {
  for (const Field& field : kFields) {
    SamplingOptions options;
    options.*field.value = -100.5F;
    EXPECT_THAT(validate(options, 0),
                IsInvalidFormat(std::string(field.name) + ": found -100.5, needed " + field.range));
  }
}

TEST(SamplingOptions, ABiasNeedsATokenAndAValue) {
  SamplingOptions options;
  options.logitBias = {{4, 1e30F}, {3, -kInf}};
  EXPECT_THAT(validate(options, 5), IsOk());
  EXPECT_THAT(validate(options, 4),
              IsInvalidFormat("logit bias of id 4: found no such token, needed an id below 4"));
  options.logitBias = {{2, kInf}};
  EXPECT_THAT(
      validate(options, 4),
      IsInvalidFormat("logit bias of id 2: found inf, needed a number or negative infinity"));
  options.logitBias = {{2, std::numeric_limits<float>::quiet_NaN()}};
  EXPECT_THAT(
      validate(options, 4),
      IsInvalidFormat("logit bias of id 2: found nan, needed a number or negative infinity"));
}

}  // namespace
}  // namespace zemtest
