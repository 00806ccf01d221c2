// SPDX-License-Identifier: Apache-2.0
#include "session/hint.h"

#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

namespace {

using qwen35rt::CreateHintOpts;
using qwen35rt::parseHint;

TEST(HintTest, NullAndEmptySetNothing) {
  for (const char* hint : {static_cast<const char*>(nullptr), "", ";", ";;;"}) {
    const CreateHintOpts opts = parseHint(hint);
    EXPECT_EQ(opts.ctx, 0U);
    EXPECT_EQ(opts.gpuDev, -1);
    EXPECT_EQ(opts.kv, 0);
    EXPECT_FALSE(opts.kvSet);
    EXPECT_EQ(opts.plan, "");
  }
}

TEST(HintTest, TheFirstFieldIsTheHostsOwn) {
  EXPECT_EQ(parseHint("ctx=2048").ctx, 0U);
  EXPECT_EQ(parseHint("ctx=2048;kv=q8_0").ctx, 0U);
  EXPECT_EQ(parseHint("vulkan;ctx=2048").ctx, 2048U);
  EXPECT_EQ(parseHint(";ctx=2048").ctx, 2048U);
}

TEST(HintTest, AllOptionsTogether) {
  const CreateHintOpts opts = parseHint("vulkan;ctx=100;;kv=q4_0;colour=red;plan=0-7:gpu;");
  EXPECT_EQ(opts.ctx, 100U);
  EXPECT_EQ(opts.kv, 2);
  EXPECT_TRUE(opts.kvSet);
  EXPECT_EQ(opts.plan, "0-7:gpu");
}

TEST(HintTest, ContextIsReadAsDecimal) {
  const std::vector<std::pair<const char*, size_t>> cases = {{"1", 1},
                                                             {"8192", 8192},
                                                             {"9000", 9000},
                                                             {"0", 0},
                                                             {"-5", 0},
                                                             {"many", 0},
                                                             {"", 0},
                                                             {" 12", 12},
                                                             {"+12", 12},
                                                             {"12k", 12},
                                                             {"0x10", 0},
                                                             {"2147483647", 2147483647},
                                                             {"4294967297", 2147483647},
                                                             {"99999999999999999999", 2147483647},
                                                             {"-99999999999999999999", 0}};
  for (const auto& [text, expected] : cases) {
    EXPECT_EQ(parseHint((std::string("host;ctx=") + text).c_str()).ctx, expected) << text;
  }
}

TEST(HintTest, KvTakesItsThreeNamesOnly) {
  EXPECT_EQ(parseHint("h;kv=q8_0").kv, 1);
  EXPECT_EQ(parseHint("h;kv=q4_0").kv, 2);
  EXPECT_EQ(parseHint("h;kv=f16").kv, 0);
  EXPECT_TRUE(parseHint("h;kv=f16").kvSet);
  for (const char* other : {"h;kv=", "h;kv=q8", "h;kv=Q8_0", "h;kv=q8_0 ", "h;kv=f32", "h;kv"}) {
    EXPECT_FALSE(parseHint(other).kvSet) << other;
    EXPECT_EQ(parseHint(other).kv, 0) << other;
  }
}

TEST(HintTest, LaterFieldsOverwriteEarlierOnes) {
  EXPECT_EQ(parseHint("h;ctx=1;ctx=2").ctx, 2U);
  EXPECT_EQ(parseHint("h;ctx=1;ctx=0").ctx, 1U);
  EXPECT_EQ(parseHint("h;kv=q8_0;kv=f16").kv, 0);
  EXPECT_EQ(parseHint("h;kv=q8_0;kv=other").kv, 1);
  EXPECT_EQ(parseHint("h;plan=a;plan=").plan, "");
}

TEST(HintTest, NamesAreExact) { EXPECT_EQ(parseHint("h; ctx=5;CTX=5;ctx =5;xctx=5").ctx, 0U); }

}  // namespace
