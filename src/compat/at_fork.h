// SPDX-License-Identifier: Apache-2.0
// What a library does when its process forks: the child has none of its threads.
#pragma once

namespace compat {

// From now on every fork() runs `before` in front of it, and after it `parent` in this process and
// `child` in the new one. Calls add up. Throws std::bad_alloc. On systems without fork() it does
// nothing.
void atFork(void (*before)(), void (*parent)(), void (*child)());

}  // namespace compat
