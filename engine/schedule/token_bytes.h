// SPDX-License-Identifier: Apache-2.0
// The bytes that each token of a vocabulary stands for.
#pragma once

#include <cstdint>
#include <string_view>

#include "engine/text/constraint_tokens.h"

namespace zem {

// Any thread.
class TokenBytes {
 public:
  TokenBytes() = default;
  TokenBytes(const TokenBytes&) = delete;
  TokenBytes& operator=(const TokenBytes&) = delete;
  virtual ~TokenBytes() = default;

  // What the token adds to a text; empty for an id without a token and for one that people do
  // not read.
  virtual std::string_view bytesOf(uint32_t id) const = 0;
  // One more than the largest id that has a token.
  virtual uint32_t size() const = 0;
  // The bytes of all tokens, sorted. The first call may take long.
  virtual const text::TokenTexts& texts() const = 0;
};

}  // namespace zem
