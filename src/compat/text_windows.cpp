// SPDX-License-Identifier: Apache-2.0
#include "compat/text_windows.h"

#include <windows.h>

namespace compat {
namespace {

constexpr size_t kMaxPlainName = 247;  // a folder's limit; a file's is 259

bool convert(std::string_view utf8, DWORD flags, std::wstring& wide) {
  wide.clear();
  if (utf8.empty()) return true;
  const auto bytes = static_cast<int>(utf8.size());
  const int length = MultiByteToWideChar(CP_UTF8, flags, utf8.data(), bytes, nullptr, 0);
  if (length <= 0) return false;
  wide.resize(static_cast<size_t>(length));
  return MultiByteToWideChar(CP_UTF8, flags, utf8.data(), bytes, wide.data(), length) == length;
}

std::wstring absolute(const std::wstring& name) {
  const DWORD room = GetFullPathNameW(name.c_str(), 0, nullptr, nullptr);
  std::wstring whole(room, L'\0');
  const DWORD length = GetFullPathNameW(name.c_str(), room, whole.data(), nullptr);
  if (length == 0 || length >= room) return name;
  whole.resize(length);
  if (whole.starts_with(LR"(\\?\)") || whole.starts_with(LR"(\\.\)")) return whole;
  if (whole.starts_with(LR"(\\)")) return LR"(\\?\UNC)" + whole.substr(1);
  return LR"(\\?\)" + whole;
}

}  // namespace

std::wstring toWide(std::string_view utf8) {
  std::wstring wide;
  convert(utf8, 0, wide);
  return wide;
}

std::string toUtf8(std::wstring_view utf16) {
  if (utf16.empty()) return {};
  const auto length = static_cast<int>(utf16.size());
  const int bytes =
      WideCharToMultiByte(CP_UTF8, 0, utf16.data(), length, nullptr, 0, nullptr, nullptr);
  std::string utf8(static_cast<size_t>(bytes), '\0');
  WideCharToMultiByte(CP_UTF8, 0, utf16.data(), length, utf8.data(), bytes, nullptr, nullptr);
  return utf8;
}

bool toWideName(std::string_view name, std::wstring& wide) {
  if (!convert(name, MB_ERR_INVALID_CHARS, wide)) return false;
  if (wide.size() > kMaxPlainName) wide = absolute(wide);
  return true;
}

}  // namespace compat
