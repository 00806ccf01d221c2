// SPDX-License-Identifier: Apache-2.0
// What every entry does at the boundary to the host.
#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdio>
#include <string>

namespace qwen35rt {

// Runs the body of an entry. Whatever it throws, out of memory above all, stops
// here and becomes return code 1.
template <typename Body>
int guarded(Body&& body) noexcept {
  try {
    return body();
  } catch (...) {
    return 1;
  }
}

inline constexpr char kWarningPrefix[] = "[qwen35-vulkan] ";

// One line on the standard error stream, written in one piece.
inline void warn(const std::string& text) {
  std::fputs((kWarningPrefix + text + "\n").c_str(), stderr);
}

// Prints a literal in the same way when no memory may be left: the line is put together
// on the stack.
template <size_t N>
void warn(const char (&text)[N]) noexcept {
  constexpr size_t kPrefixLength = sizeof(kWarningPrefix) - 1;
  std::array<char, kPrefixLength + N + 1> line{};  // a line feed more than the literal
  std::copy_n(kWarningPrefix, kPrefixLength, line.begin());
  std::copy_n(text, N - 1, line.begin() + kPrefixLength);
  line[kPrefixLength + N - 1] = '\n';
  std::fputs(line.data(), stderr);
}

}  // namespace qwen35rt
