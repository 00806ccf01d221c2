// SPDX-License-Identifier: Apache-2.0
// Mapping files in POSIX words: fstat, close, mmap, munmap, madvise. Code that maps files
// includes this header in place of the system's own. compat/files.h opens files.
#pragma once

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <unistd.h>

static_assert(sizeof(off_t) == 8, "models are larger than 4 GiB: build with 64-bit file offsets");

#ifdef _WIN32

#include <stddef.h>
#include <stdint.h>

// NOLINTBEGIN: the names and forms are the other system's.
#define PROT_READ 0x1
#define PROT_WRITE 0x2
#define MAP_SHARED 0x01
#define MAP_PRIVATE 0x02
#define MAP_FAILED (reinterpret_cast<void*>(intptr_t{-1}))
#define MADV_WILLNEED 3
#define MADV_DONTNEED 4
#define MADV_HUGEPAGE 14

extern "C" {

// Maps `length` bytes of the open file `fd` from `offset` on, a multiple of the system's
// allocation granularity (64 KiB). `addr`, `prot` and `flags` are ignored: every mapping is
// read-only, at an address that the system chooses. The mapping outlives the descriptor.
// Returns MAP_FAILED, without setting errno, when `length` is 0, `fd` is not an open file, or
// the file is shorter than the mapping. Any thread may call it.
void* mmap(void* addr, size_t length, int prot, int flags, int fd, off_t offset);

// Ends the whole mapping that begins at `addr`; `length` does not matter. Other addresses are
// ignored. Returns 0.
int munmap(void* addr, size_t length);

// Does nothing and returns 0.
int madvise(void* addr, size_t length, int advice);

}  // extern "C"
// NOLINTEND

#else

#include <sys/mman.h>

#endif
