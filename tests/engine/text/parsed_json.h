// SPDX-License-Identifier: Apache-2.0
// JSON written in a test.
#pragma once

#include <gtest/gtest.h>

#include <string_view>

#include "engine/text/json.h"

namespace zem::text::test {

// The value of `text`, which must be JSON.
inline Json parsed(std::string_view text) {
  Json value;
  const kiv::Status status = parseJson(text, "test", value);
  EXPECT_TRUE(status.ok()) << status.message() << "\n" << text;
  return value;
}

}  // namespace zem::text::test
