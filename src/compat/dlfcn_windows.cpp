// SPDX-License-Identifier: Apache-2.0
#include "compat/dlfcn.h"

#include <windows.h>

#include <cstdio>

namespace {

constexpr int kMaxNameChars = 4096;  // with the terminator
constexpr DWORD kMaxMessageChars = 192;
constexpr int kMessageBytes = 256;  // with the terminator

HMODULE moduleOf(void* handle) {
  return handle == nullptr ? GetModuleHandleW(nullptr) : static_cast<HMODULE>(handle);
}

// Not inlined: finding the thread's buffer makes system calls, and the caller must read the
// error before any other call.
[[gnu::noinline]] const char* messageOf(DWORD code) {
  thread_local char message[kMessageBytes];
  wchar_t text[kMaxMessageChars];
  const DWORD length = FormatMessageW(FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS,
                                      nullptr, code, 0, text, kMaxMessageChars, nullptr);
  const int bytes = length == 0 ? 0
                                : WideCharToMultiByte(CP_UTF8, 0, text, static_cast<int>(length),
                                                      message, kMessageBytes - 1, nullptr, nullptr);
  if (bytes > 0) {
    message[bytes] = '\0';
  } else {
    std::snprintf(message, sizeof message, "Win32 error %lu", code);
  }
  return message;
}

}  // namespace

void* dlopen(const char* filename, int /*flag*/) {
  if (filename == nullptr || *filename == '\0') return GetModuleHandleW(nullptr);
  wchar_t name[kMaxNameChars];
  if (MultiByteToWideChar(CP_UTF8, 0, filename, -1, name, kMaxNameChars) == 0) return nullptr;
  HMODULE library = LoadLibraryExW(
      name, nullptr, LOAD_LIBRARY_SEARCH_DEFAULT_DIRS | LOAD_LIBRARY_SEARCH_DLL_LOAD_DIR);
  if (library == nullptr) library = LoadLibraryW(name);
  return library;
}

void* dlsym(void* handle, const char* symbol) {
  return reinterpret_cast<void*>(GetProcAddress(moduleOf(handle), symbol));
}

int dlclose(void* handle) {
  if (handle == nullptr) return 0;
  return FreeLibrary(static_cast<HMODULE>(handle)) != 0 ? 0 : 1;
}

const char* dlerror() {
  const DWORD code = GetLastError();
  const char* message = messageOf(code);
  SetLastError(code);  // the caller may ask again
  return message;
}
