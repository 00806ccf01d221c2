// SPDX-License-Identifier: Apache-2.0
/* Loading shared libraries in POSIX words. On Windows these four are the
 * project's own, over Win32; elsewhere they are the system's. C and C++. */
#ifndef ZEM_COMPAT_DLFCN_H
#define ZEM_COMPAT_DLFCN_H

#ifdef _WIN32

/* Accepted and ignored. Windows binds a library's symbols at once, and finds them
 * through its handle alone. */
#define RTLD_LAZY 0x1
#define RTLD_NOW 0x2
#define RTLD_GLOBAL 0x100
#define RTLD_LOCAL 0
#define RTLD_NODELETE 0x1000

#ifdef __cplusplus
extern "C" {
#endif

/* Loads a library by its UTF-8 name; null or "" gives the program itself. Libraries
 * that it needs are searched for beside it and in the default folders, then in the
 * system's usual order. Null on failure. */
void* dlopen(const char* filename, int flag);

/* An exported symbol's address, of the program when `handle` is null; null when
 * there is none. */
void* dlsym(void* handle, const char* symbol);

/* 0 for success, and for a null handle; 1 for failure. */
int dlclose(void* handle);

/* The system's text, with its line break, for the calling thread's last error. Any
 * call may set that error, so ask right after the failed call. Never null. The thread's
 * next call overwrites the text. */
const char* dlerror(void);

#ifdef __cplusplus
}
#endif

#else

#include <dlfcn.h>

#endif

#endif /* ZEM_COMPAT_DLFCN_H */
