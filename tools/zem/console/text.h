// Bytes from a model or a file, made fit to be shown: whole UTF-8 characters,
// no control sequences, columns in line.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace zemtool {

// Joins pieces whose borders may split a character. Bytes that are no UTF-8
// become U+FFFD, one for each longest part that could have begun a character.
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

// Characters of valid UTF-8 text.
size_t countCharacters(std::string_view text);

// "512 B", "1.50 KiB", "4.13 GiB".
std::string formatBytes(uint64_t bytes);
// printf's "%.*f".
std::string formatNumber(double value, int decimals);

// Rows of cells in columns two spaces apart, each line indented by two; columns
// named in `right` are flush right. The cells are escaped text already.
std::string formatTable(const std::vector<std::vector<std::string>>& rows,
                        const std::vector<size_t>& right = {});

}  // namespace zemtool
