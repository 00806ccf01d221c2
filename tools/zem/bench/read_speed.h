// How fast this machine reads memory: what bounds decoding on a CPU, since a
// token needs every weight once.
#pragma once

#include <cstddef>

namespace zemtool {

// Bytes a second that `threads` >= 1 threads read together from a buffer of
// readSpeedBytes(), each its own part from front to back; the best of several
// passes, with and without asking for lines ahead. Throws Failure when threads or
// memory are refused, or when memory does not hold what was written.
double measureReadSpeed(int threads);

// At least eight times the last-level caches of all processors, so that next to
// nothing is left in them from the pass before.
size_t readSpeedBytes();

}  // namespace zemtool
