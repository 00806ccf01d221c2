// SPDX-License-Identifier: Apache-2.0
// Large blocks of zeros that nothing has to write: the system supplies zero pages on first
// touch.
#pragma once

#include <cstddef>

namespace compat {

enum class PageUse {
  Sparse,  // much of the block is never touched
  Dense,   // nearly all of the block is touched: large pages are best
};

// `bytes` of zeros, page-aligned; null when the system has none to give or
// `bytes` is 0.
void* allocateZeroPages(size_t bytes, PageUse use);

// Gives a block of allocateZeroPages() back. `bytes` is its size; null is fine.
void freeZeroPages(void* block, size_t bytes);

// Makes the whole block zero again. Takes time for the pages that were touched, not for the
// block's size.
void clearZeroPages(void* block, size_t bytes);

}  // namespace compat
