// Opening, measuring and mapping files in POSIX words: open, fstat, close,
// mmap, munmap, madvise. Code that maps files includes this header instead of
// the system's own, so that what a platform needs in their place has one home.
#pragma once

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <unistd.h>

static_assert(sizeof(off_t) == 8, "models are larger than 4 GiB: build with 64-bit file offsets");
