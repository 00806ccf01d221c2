// SPDX-License-Identifier: Apache-2.0
#include "console/program.h"

#include <windows.h>

#include <bit>

#include "compat/text_windows.h"

namespace zemtool {

const char* const kModuleSuffix = ".dll";

std::string programPath() {
  std::wstring path(MAX_PATH, L'\0');
  for (;;) {
    const auto room = static_cast<DWORD>(path.size());
    const DWORD length = GetModuleFileNameW(nullptr, path.data(), room);
    if (length < room) return compat::toUtf8(std::wstring_view(path).substr(0, length));
    path.resize(path.size() * 2);  // it was cut
  }
}

void restartForOpenMp() {}

int usableProcessors() {
  DWORD_PTR own = 0;
  DWORD_PTR all = 0;
  if (GetProcessAffinityMask(GetCurrentProcess(), &own, &all) == 0 || own == 0) return 1;
  return std::popcount(own);
}

}  // namespace zemtool
