// SPDX-License-Identifier: Apache-2.0
// What tests need to know of the system they run on.
#pragma once

#ifdef _WIN32
#include <windows.h>
#define ZEM_MODULE_SUFFIX ".dll"
#define ZEM_PROGRAM_SUFFIX ".exe"
#else
#include <sys/stat.h>
#define ZEM_MODULE_SUFFIX ".so"
#define ZEM_PROGRAM_SUFFIX ""
#endif

namespace zemtest {

#ifdef _WIN32

inline constexpr const char* kDevice = "NUL";  // names a device
inline bool makeFifo(const char* /*path*/) { return false; }

#else

inline constexpr const char* kDevice = "/dev/full";

// Creates a named pipe.
inline bool makeFifo(const char* path) { return ::mkfifo(path, 0600) == 0; }

#endif

}  // namespace zemtest

// First line of a test of what Windows does not have.
#ifdef _WIN32
#define ZEM_SKIP_ON_WINDOWS(missing) GTEST_SKIP() << "Windows has no " << (missing)
#else
#define ZEM_SKIP_ON_WINDOWS(missing) static_cast<void>(0)
#endif
