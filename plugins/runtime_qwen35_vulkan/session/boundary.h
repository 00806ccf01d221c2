// What every entry does at the boundary to the host.
#pragma once

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

// One line on the standard error stream, written in one piece.
inline void warn(const std::string& text) {
  std::fputs(("[qwen35-vulkan] " + text + "\n").c_str(), stderr);
}

}  // namespace qwen35rt
