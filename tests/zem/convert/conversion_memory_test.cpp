// SPDX-License-Identifier: Apache-2.0
// Every request for memory in a conversion, made to fail: a message, nothing leaked
// (the sanitized build looks), no partial file, and an older output as it was.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <new>
#include <string>
#include <vector>

#include "console/terminal.h"
#include "convert/conversion.h"
#include "support/failing_memory.h"
#include "support/golden_checkpoint.h"
#include "support/published_model.h"
#include "support/temp_folder.h"

namespace zemtool {
namespace {

using ::testing::AnyOf;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using zemtest::Bytes;
using zemtest::FailingMemory;
using zemtest::requestsWorthFailing;
using zemtest::Shortage;

constexpr uint64_t kWidth = 8;
constexpr uint64_t kFeedForward = 12;

// A whole model of zeros. (A checkpoint's JSON is read by a library that allocates
// in destructors, and so ends the process.)
Bytes smallGguf() {
  zemtest::GgufBuilder gguf = zemtest::supportedGguf(kWidth, kFeedForward);
  zemtest::CheckpointBuilder checkpoint({.width = kWidth, .feedForward = kFeedForward});
  for (const auto& [name, tensor] : checkpoint.tensors()) {
    std::vector<uint64_t> shape = tensor.shape;
    std::vector<float> values(tensor.bytes() / sizeof(float));
    zemtest::toContainerLayout(name, values, shape);
    gguf.addTensor(zemtest::goldenContainerName(name), zemtest::gguf::kF32,
                   {shape.rbegin(), shape.rend()}, Bytes(values.size() * sizeof(float)));
  }
  return gguf.build();
}

class ConversionMemoryTest : public testing::TestWithParam<Shortage> {
 protected:
  // What a first use keeps is there afterwards.
  void SetUp() override {
    folder_.write("m.gguf", smallGguf());
    ASSERT_EQ(convert(options()), "");
    whole_ = folder_.read("m.zem");
    ASSERT_FALSE(whole_.empty());
  }

  ConversionOptions options() const {
    ConversionOptions options;
    options.input = folder_.path("m.gguf");
    options.output = folder_.path("m.zem");
    options.mix = WeightMix::Q8_0;
    options.force = true;
    return options;
  }

  // What the tool would say; empty for success.
  static std::string convert(const ConversionOptions& options) {
    try {
      convertModel(options);
      return "";
    } catch (const Failure& failure) {
      return failure.what();
    } catch (const std::bad_alloc&) {
      return "out of memory";
    }
  }

  const zemtest::TempFolder folder_;
  std::string whole_;
};

TEST_P(ConversionMemoryTest, SaysSoAndLeavesTheOldFile) {
  const ConversionOptions options = this->options();
  const std::vector<size_t> requests = requestsWorthFailing([&] { convert(options); });
  ASSERT_GT(requests.size(), 20U);
  size_t failures = 0;
  for (const size_t request : requests) {
    SCOPED_TRACE("request " + std::to_string(request));
    folder_.write("m.zem", std::string_view("old"));
    std::string said;
    bool failed = false;
    {
      const FailingMemory memory(request, GetParam());
      said = convert(options);
      failed = memory.failed();
    }
    ASSERT_TRUE(failed);
    ASSERT_THAT(folder_.names(), ElementsAre("m.gguf", "m.zem"));
    if (said.empty()) {
      EXPECT_TRUE(folder_.read("m.zem") == whole_);
      continue;
    }
    ++failures;
    EXPECT_THAT(said, AnyOf("out of memory", HasSubstr("Cannot allocate memory")));
    EXPECT_TRUE(folder_.read("m.zem") == "old");
  }
  EXPECT_GT(failures, 10U);
  std::printf("  %zu requests, %zu of them missed\n", requests.size(), failures);
}

// Which request meets the shortage then depends on the threads.
TEST_P(ConversionMemoryTest, SeveralThreadsSaySoToo) {
  ConversionOptions options = this->options();
  options.threads = 3;
  const std::vector<size_t> requests = requestsWorthFailing([&] { convert(options); });
  folder_.write("m.zem", std::string_view("old"));
  for (const size_t request : requests) {
    std::string said;
    {
      const FailingMemory memory(request, GetParam());
      said = convert(options);
    }
    ASSERT_THAT(folder_.names(), ElementsAre("m.gguf", "m.zem"));
    EXPECT_TRUE(folder_.read("m.zem") == (said.empty() ? whole_ : "old")) << said;
    if (said.empty()) folder_.write("m.zem", std::string_view("old"));
  }
}

INSTANTIATE_TEST_SUITE_P(Shortages, ConversionMemoryTest,
                         testing::Values(Shortage::Once, Shortage::Lasting),
                         [](const auto& shortage) {
                           return shortage.param == Shortage::Once ? "Once" : "Lasting";
                         });

}  // namespace
}  // namespace zemtool
