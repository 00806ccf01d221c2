// SPDX-License-Identifier: Apache-2.0
// Unicode's normalisation form C, with the data of Unicode 9.0: a point assigned
// later stays as it is and joins with nothing.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace zem::text::unicode {

// The length of a part from the start that is in the form already and that what
// follows cannot change; the whole length for a text that is in the form.
// REQUIRES: `text` is well-formed UTF-8.
size_t nfcLength(std::string_view text);

// The normalised text. Time n log n with the longest run of combining marks.
// REQUIRES: `text` is well-formed UTF-8.
std::string toNfc(std::string_view text);

}  // namespace zem::text::unicode
