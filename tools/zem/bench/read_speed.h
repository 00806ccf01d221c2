// SPDX-License-Identifier: Apache-2.0
// How fast this machine reads memory. That bounds decoding on a CPU, because every token
// reads every weight once.
#pragma once

#include <cstddef>

namespace zemtool {

// Bytes per second that `threads` >= 1 threads read together from a buffer of
// readSpeedBytes(), each its own part from front to back. The best of several passes, with and
// without prefetching. Throws Failure when the system refuses threads or memory, or when the
// memory does not hold what was written.
double measureReadSpeed(int threads);

// At least eight times the last-level caches of all processors, so that they hold next to
// nothing of the pass before.
size_t readSpeedBytes();

}  // namespace zemtool
