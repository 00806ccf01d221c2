// SPDX-License-Identifier: Apache-2.0
#include <pthread.h>

#include <new>

#include "compat/at_fork.h"

namespace compat {

void atFork(void (*before)(), void (*parent)(), void (*child)()) {
  if (pthread_atfork(before, parent, child) != 0) throw std::bad_alloc();
}

}  // namespace compat
