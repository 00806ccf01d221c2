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

/// Replaces `bytes` by what `spelled` stands for. False, with `bytes` unchanged,
/// when it holds a character that spells no byte.
bool byteLevelToBytes(std::string_view spelled, std::string& bytes);

/// Whether `bytes` are whole, well-formed UTF-8 characters. Nothing is.
bool isWholeText(std::string_view bytes);

/// How a container's token says `bytes`, so that decoding gives exactly them:
/// whole text as it is with spaces as U+2581, other bytes as a run of "<0xNN>". A
/// U+2581 of the text itself and the beginning of what decoding would take for
/// such a byte are spelled as bytes too.
std::string storedToken(std::string_view bytes);

/// Whether storedToken(bytes) is the text itself, so that encoding can meet it.
bool storedAsText(std::string_view bytes);

}  // namespace kiv
