// SPDX-License-Identifier: Apache-2.0
// Pre-tokenisation: cuts text into the pieces inside which merges may happen.
#pragma once

#include <cstddef>
#include <string_view>

namespace kiv {

// The bytes of the first UTF-8 character of `text`, which is not empty. The lead
// byte alone decides, so that bytes that are no UTF-8 have a length as well; a
// character that the end cuts off has the bytes that are left.
size_t utf8Length(std::string_view text);

// The first piece of `text`, never empty: a contraction, a run of letters with one
// other byte before it, up to three digits, a run of punctuation with a space
// before it, or a run of whitespace. Everything beyond ASCII is a letter.
// REQUIRES: `text` is not empty.
std::string_view nextPiece(std::string_view text);

}  // namespace kiv
