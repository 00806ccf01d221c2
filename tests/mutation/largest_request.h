// SPDX-License-Identifier: Apache-2.0
// What the largest allocation of this program asked for.
#pragma once

#include <cstddef>

namespace zemtest {

// No allocation may be larger: it fails.
constexpr size_t kLargestAllocation = size_t{2} << 30;

// Bytes of the largest request of operator new so far, a refused one included. Always
// 0 under the address sanitizer, whose own allocator has the limit and ends the process.
size_t largestRequest();

}  // namespace zemtest
