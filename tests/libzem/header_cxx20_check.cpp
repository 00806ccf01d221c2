// SPDX-License-Identifier: Apache-2.0
// The header alone, and beside that of the plug-in, as C++.
#include "zem/engine.h"
#include "zem/plugin.h"

static_assert(noexcept(zem_version()));
