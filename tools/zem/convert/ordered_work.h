// Work on several threads whose results are wanted in order, in bounded memory.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <vector>

namespace zemtool {

// Calls produce(job, bytes) for the jobs 0 to jobCount - 1 on `threads` threads
// (at least one), and consume(job, bytes) for each, in order, on the calling
// thread. At most three results a thread are kept at a time. `bytes` comes with
// what an earlier job left in it.
//
// An exception of either function ends the work and is thrown to the caller.
void runOrdered(size_t jobCount, size_t threads,
                const std::function<void(size_t, std::vector<uint8_t>&)>& produce,
                const std::function<void(size_t, const std::vector<uint8_t>&)>& consume);

}  // namespace zemtool
