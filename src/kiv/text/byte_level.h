// SPDX-License-Identifier: Apache-2.0
/// \file
/// Byte-level vocabularies: published ones spell the 256 bytes as printable
/// characters (a space as U+0120, a line feed as U+010A), containers hold the text
/// itself. The way from one to the other.
///
/// Pure; any thread.
#pragma once

#include <string>
#include <string_view>

namespace kiv {

/// What stored tokens have for a space: U+2581.
inline constexpr std::string_view kSpaceMarker = "\xE2\x96\x81";

/// Replaces `bytes` by what `spelled` stands for. False, with `bytes` unchanged,
/// when it holds a character that spells no byte.
bool byteLevelToBytes(std::string_view spelled, std::string& bytes);

/// Whether `bytes` consist of whole, well-formed UTF-8 characters; true for no bytes.
bool isWholeText(std::string_view bytes);

/// The token that a container stores for `bytes`; decoding it gives exactly `bytes`.
/// Whole text is stored as it is, with spaces as U+2581. Other bytes are stored as a
/// run of "<0xNN>", and so are two parts of a text that decoding would change: a U+2581,
/// and the beginning of anything that looks like "<0xNN>".
std::string storedToken(std::string_view bytes);

/// Whether storedToken(bytes) holds the text itself, so that encoding can find it.
bool storedAsText(std::string_view bytes);

}  // namespace kiv
