// SPDX-License-Identifier: Apache-2.0
#include "compat/environment.h"

#include <cstdlib>

#include "gtest/gtest.h"

namespace {

constexpr const char* kName = "ZEM_TEST_ENVIRONMENT";

TEST(EnvironmentTest, SetAndUnset) {
  EXPECT_EQ(compat::environmentVariable(kName), std::nullopt);
  compat::setEnvironmentVariable(kName, "one");
  EXPECT_EQ(compat::environmentVariable(kName), "one");
  compat::setEnvironmentVariable(kName, "two");
  EXPECT_EQ(compat::environmentVariable(kName), "two");
  EXPECT_STREQ(std::getenv(kName), "two");  // as other libraries ask
  compat::unsetEnvironmentVariable(kName);
  EXPECT_EQ(compat::environmentVariable(kName), std::nullopt);
  EXPECT_EQ(std::getenv(kName), nullptr);
}

TEST(EnvironmentTest, ValuesAreUtf8) {
  const std::string value = "\xC3\xA4 \xE4\xBD\xA0 \xF0\x9F\x98\x80";
  compat::setEnvironmentVariable(kName, value);
  EXPECT_EQ(compat::environmentVariable(kName), value);
  compat::unsetEnvironmentVariable(kName);
}

}  // namespace
