// SPDX-License-Identifier: Apache-2.0
#include "engine/sampling/container_sampling.h"

#include <gtest/gtest.h>

#include "support/container_builder.h"
#include "support/loaded_container.h"
#include "support/status_matchers.h"

namespace zemtest {

using namespace zem;

namespace {

kiv::Status read(ContainerBuilder& builder, bool thinking, SamplingOptions& options) {
  const LoadedContainer container(builder.build());
  EXPECT_THAT(container.status, IsOk());
  return containerSampling(container.loader, thinking, options);
}

TEST(ContainerSampling, WithoutEntriesItIsTheFamilys) {
  for (const bool thinking : {false, true}) {
    ContainerBuilder empty;
    SamplingOptions options;
    ASSERT_THAT(read(empty, thinking, options), IsOk());
    EXPECT_EQ(options.temperature, thinking ? 1.0F : 0.7F);
    EXPECT_EQ(options.topK, 20U);
    EXPECT_EQ(options.topP, thinking ? 0.95F : 0.8F);
    EXPECT_EQ(options.presencePenalty, 1.5F);
  }
}

TEST(ContainerSampling, EachEntryTakesThePlaceOfItsValue) {
  ContainerBuilder all;
  all.addMetaF32("sampling.temperature", 0.6F);
  all.addMetaU32("sampling.top_k", 50);
  all.addMetaF32("sampling.top_p", 0.9F);
  SamplingOptions options;
  ASSERT_THAT(read(all, true, options), IsOk());
  EXPECT_EQ(options.temperature, 0.6F);
  EXPECT_EQ(options.topK, 50U);
  EXPECT_EQ(options.topP, 0.9F);
  EXPECT_EQ(options.presencePenalty, 1.5F);

  ContainerBuilder one;
  one.addMetaU32("sampling.top_k", 7);
  ASSERT_THAT(read(one, false, options), IsOk());
  EXPECT_EQ(options.temperature, 0.7F);
  EXPECT_EQ(options.topK, 7U);
  EXPECT_EQ(options.topP, 0.8F);
}

TEST(ContainerSampling, APresencePenaltyOfZeroTakesThePlaceOfTheFamilys) {
  ContainerBuilder none;
  none.addMetaF32("sampling.presence_penalty", 0.0F);
  SamplingOptions options;
  ASSERT_THAT(read(none, true, options), IsOk());
  EXPECT_EQ(options.presencePenalty, 0.0F);
}

TEST(ContainerSampling, ValuesOutOfRangeAreRefused) {
  ContainerBuilder hot;
  hot.addMetaF32("sampling.temperature", -1.0F);
  SamplingOptions options;
  options.topK = 123;
  EXPECT_THAT(read(hot, true, options),
              IsInvalidFormat("metadata entry sampling.temperature: temperature: found -1, needed "
                              "0 to 100"));
  EXPECT_EQ(options.topK, 123U);
  ContainerBuilder all;
  all.addMetaF32("sampling.top_p", 1.5F);
  EXPECT_THAT(read(all, true, options),
              IsInvalidFormat("metadata entry sampling.top_p: top-p: found 1.5, needed 0 to 1"));
}

TEST(ContainerSampling, OtherTypesAreRefused) {
  SamplingOptions options;
  ContainerBuilder whole;
  whole.addMetaU32("sampling.temperature", 1);
  EXPECT_THAT(read(whole, true, options),
              IsInvalidFormat("metadata entry sampling.temperature: found another type, needed a "
                              "32-bit float"));
  ContainerBuilder text;
  text.addMetaStr("sampling.top_k", "20");
  EXPECT_THAT(read(text, true, options),
              IsInvalidFormat("metadata entry sampling.top_k: found another type, needed a 32-bit "
                              "unsigned integer"));
}

}  // namespace
}  // namespace zemtest
