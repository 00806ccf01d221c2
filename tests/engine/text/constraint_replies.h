// SPDX-License-Identifier: Apache-2.0
// Replies under a constraint.
#pragma once

#include <memory>
#include <string_view>

#include "engine/text/constraint.h"

namespace zem::text::test {

using ConstraintPtr = std::shared_ptr<const Constraint>;

// Whether the whole of `text` is a reply.
inline bool takes(const ConstraintPtr& constraint, std::string_view text) {
  ConstraintState state = Constraint::begin(constraint);
  return state.advance(text) && state.complete();
}

}  // namespace zem::text::test
