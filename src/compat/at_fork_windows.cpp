// SPDX-License-Identifier: Apache-2.0
#include "compat/at_fork.h"

namespace compat {

void atFork(void (* /*before*/)(), void (* /*parent*/)(), void (* /*child*/)()) {}

}  // namespace compat
