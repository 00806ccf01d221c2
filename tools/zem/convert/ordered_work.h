// SPDX-License-Identifier: Apache-2.0
// Work on several threads that gives its results in order and in bounded memory.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <vector>

namespace zemtool {

// Calls produce(job, bytes) for the jobs 0 to jobCount - 1 on `threads` threads (at least one),
// and consume(job, bytes) for each, in order, on the calling thread. Keeps at most three
// results for each thread. `bytes` still holds the result of an earlier job.
//
// An exception of either function ends the work and is thrown to the caller.
void runOrdered(size_t jobCount, size_t threads,
                const std::function<void(size_t, std::vector<uint8_t>&)>& produce,
                const std::function<void(size_t, const std::vector<uint8_t>&)>& consume);

}  // namespace zemtool
