// SPDX-License-Identifier: Apache-2.0
/* Three small calls that systems spell differently. C and C++. */
#ifndef ZEM_COMPAT_ZEM_COMPAT_H
#define ZEM_COMPAT_ZEM_COMPAT_H

#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

/* The current folder as NUL-terminated UTF-8. 0 for success, -1 when it does not fit.
 * The buffer must be one byte larger than `size`: on Windows the terminator may stand
 * right behind `size` bytes. */
int zemCompatGetcwd(char* buf, size_t size);

/* Non-zero when the descriptor is a terminal. */
int zemCompatIsatty(int fd);

/* Suspends the calling thread for at least so many milliseconds. */
void zemCompatSleepMs(unsigned milliseconds);

#ifdef __cplusplus
}
#endif

#endif /* ZEM_COMPAT_ZEM_COMPAT_H */
