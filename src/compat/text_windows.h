// Text as Windows takes it. For sources that are compiled for Windows.
#pragma once

#include <string>
#include <string_view>

namespace compat {

// What is not UTF-8, or not UTF-16, becomes U+FFFD.
std::wstring toWide(std::string_view utf8);
std::string toUtf8(std::wstring_view utf16);

// A file name for the system's calls: of any length, as an absolute "\\?\" name
// where the plain one would be too long. False when `name` is not UTF-8.
bool toWideName(std::string_view name, std::wstring& wide);

}  // namespace compat
