// SPDX-License-Identifier: Apache-2.0
// Makes bytes from a model or a file fit to be shown: whole UTF-8 characters, no control
// sequences, aligned columns.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace zemtool {

// Joins pieces of text where the border of two pieces may split a character. Bytes that are
// not UTF-8 become U+FFFD, one for each longest part that could have begun a character.
class Utf8Joiner {
 public:
  // Takes the next bytes; returns the whole characters that are now complete.
  std::string push(std::string_view bytes);
  // Returns what is left: U+FFFD for a character that never ended, or nothing.
  std::string finish();

 private:
  std::string take(bool all);

  std::string held_;
};

// `bytes` as valid UTF-8 in which control characters (below U+0020, U+007F to
// U+009F) outside `keep` are spelled out: "\n", "\t", "\r", else "\x1b".
std::string escapeControls(std::string_view bytes, std::string_view keep = {});

// Likewise, but bytes that are not UTF-8 are spelled out too: "\xe6".
std::string escapeBytes(std::string_view bytes);

// Whether `bytes` are UTF-8, of whole characters.
bool isWholeUtf8(std::string_view bytes);

// The number of characters of valid UTF-8 text.
size_t countCharacters(std::string_view text);

// "512 B", "1.50 KiB", "4.13 GiB".
std::string formatBytes(uint64_t bytes);
// printf's "%.*f".
std::string formatNumber(double value, int decimals);

// Aligns rows of cells in columns. Two spaces stand in front of each column; the columns in
// `right` are flush right. The cells are already escaped.
std::string formatTable(const std::vector<std::vector<std::string>>& rows,
                        const std::vector<size_t>& right = {});

}  // namespace zemtool
