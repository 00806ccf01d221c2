// SPDX-License-Identifier: Apache-2.0
// Handles of files. Only sources for Windows include it.
#pragma once

#include <io.h>
#include <windows.h>

#include <bit>
#include <cstdint>

namespace compat {

// The system's handle of a file descriptor of the C library, or INVALID_HANDLE_VALUE.
inline HANDLE handleOf(int file) {
  const intptr_t handle = _get_osfhandle(file);
  // -2: a stream that the process was started without.
  return handle < 0 ? INVALID_HANDLE_VALUE : std::bit_cast<HANDLE>(handle);
}

}  // namespace compat
