// SPDX-License-Identifier: Apache-2.0
// Text in the encoding of Windows. Only sources for Windows include it.
#pragma once

#include <string>
#include <string_view>

namespace compat {

// Parts that are not UTF-8, or not UTF-16, become U+FFFD.
std::wstring toWide(std::string_view utf8);
std::string toUtf8(std::wstring_view utf16);

// A file name for the system's calls. A name that is too long for them becomes an absolute
// "\\?\" name. False when `name` is not UTF-8.
bool toWideName(std::string_view name, std::wstring& wide);

}  // namespace compat
