// SPDX-License-Identifier: Apache-2.0
/// \file
/// Reads regular expressions; see PatternAutomaton::compile() for what is known.
#pragma once

#include <string>
#include <string_view>

#include "engine/text/constraint/pattern_links.h"

namespace zem::text::pattern {

/// Adds the links of `pattern` and returns their first state. What is not supported is
/// named in `error`, which is empty otherwise.
int readPattern(std::string_view pattern, Links& links, std::string& error);

}  // namespace zem::text::pattern
