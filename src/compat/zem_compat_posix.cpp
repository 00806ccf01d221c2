// SPDX-License-Identifier: Apache-2.0
#include <unistd.h>

#include <cerrno>
#include <ctime>

#include "compat/zem_compat.h"

int zemCompatGetcwd(char* buf, size_t size) { return getcwd(buf, size) != nullptr ? 0 : -1; }

int zemCompatIsatty(int fd) { return isatty(fd); }

void zemCompatSleepMs(unsigned milliseconds) {
  timespec left{};
  left.tv_sec = static_cast<time_t>(milliseconds / 1000);
  left.tv_nsec = static_cast<long>(milliseconds % 1000) * 1'000'000;
  while (nanosleep(&left, &left) != 0 && errno == EINTR) {
  }
}
