// SPDX-License-Identifier: Apache-2.0
#include "compat/zem_compat.h"

#include <io.h>
#include <windows.h>

#include <algorithm>
#include <limits>

namespace {

constexpr DWORD kMaxFolderChars = 4096;

}  // namespace

int zemCompatGetcwd(char* buf, size_t size) {
  wchar_t folder[kMaxFolderChars];
  const DWORD length = GetCurrentDirectoryW(kMaxFolderChars, folder);
  if (length == 0 || length >= kMaxFolderChars) return -1;
  constexpr size_t kMaxInt = std::numeric_limits<int>::max();
  // With a size of 0 Windows would write nothing and return the size that it needs.
  const int room = static_cast<int>(std::min(size, kMaxInt));
  if (room == 0) return -1;
  const int written = WideCharToMultiByte(CP_UTF8, 0, folder, static_cast<int>(length), buf, room,
                                          nullptr, nullptr);
  if (written <= 0) return -1;
  buf[written] = '\0';
  return 0;
}

int zemCompatIsatty(int fd) { return _isatty(fd); }

void zemCompatSleepMs(unsigned milliseconds) { Sleep(milliseconds); }
