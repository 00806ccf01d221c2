// SPDX-License-Identifier: Apache-2.0
// Which tokens a constrained reply may continue with.
#pragma once

#include <cstdint>
#include <vector>

namespace zem {

// Both functions have to agree on every id.
class TokenFilter {
 public:
  TokenFilter() = default;
  TokenFilter(const TokenFilter&) = delete;
  TokenFilter& operator=(const TokenFilter&) = delete;
  virtual ~TokenFilter() = default;

  // Whether the token may come next. Cheap: asked for a few ids a token.
  virtual bool allows(uint32_t id) const = 0;

  // Makes allowed[id] true for every token that may come next and for no other, whatever
  // the size before. Ids from the new size on are not allowed. May be slow.
  virtual void mask(std::vector<bool>& allowed) const = 0;
};

}  // namespace zem
