// SPDX-License-Identifier: Apache-2.0
// Ids of texts, for tests that expect no error.
#pragma once

#include <gmock/gmock.h>

#include <cstdint>
#include <string>
#include <vector>

#include "engine/text/tokenizer.h"
#include "support/status_matchers.h"

namespace zem::text::test {

inline std::vector<int32_t> encoded(const Tokenizer& tokenizer, const std::string& text) {
  std::vector<int32_t> ids;
  EXPECT_THAT(tokenizer.encode(text, AddedTokens::Recognised, ids), zemtest::IsOk());
  return ids;
}

}  // namespace zem::text::test
