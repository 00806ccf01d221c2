// SPDX-License-Identifier: Apache-2.0
#include "compat/environment.h"

#include <cstdlib>

#include "gtest/gtest.h"

namespace {

constexpr const char* kVariable = "ZEM_TEST_ENVIRONMENT";

TEST(EnvironmentTest, SetAndUnset) {
  EXPECT_EQ(compat::environmentVariable(kVariable), std::nullopt);
  compat::setEnvironmentVariable(kVariable, "one");
  EXPECT_EQ(compat::environmentVariable(kVariable), "one");
  compat::setEnvironmentVariable(kVariable, "two");
  EXPECT_EQ(compat::environmentVariable(kVariable), "two");
  EXPECT_STREQ(std::getenv(kVariable), "two");  // as other libraries ask
  compat::unsetEnvironmentVariable(kVariable);
  EXPECT_EQ(compat::environmentVariable(kVariable), std::nullopt);
  EXPECT_EQ(std::getenv(kVariable), nullptr);
}

TEST(EnvironmentTest, ValuesAreUtf8) {
  const std::string value = "\xC3\xA4 \xE4\xBD\xA0 \xF0\x9F\x98\x80";
  compat::setEnvironmentVariable(kVariable, value);
  EXPECT_EQ(compat::environmentVariable(kVariable), value);
  compat::unsetEnvironmentVariable(kVariable);
}

}  // namespace
