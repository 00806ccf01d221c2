// Large blocks of memory that are zero without having been written: the system
// supplies zero pages on first touch.
#pragma once

#include <cstddef>

namespace compat {

enum class PageUse {
  Sparse,  // much of the block is never touched
  Dense,   // nearly all of it is: the largest pages that the system gives are best
};

// `bytes` of zeros, page-aligned; null when the system has none to give or
// `bytes` is 0.
void* allocateZeroPages(size_t bytes, PageUse use);

// Gives back a block of allocateZeroPages with the size it was asked for; null is fine.
void freeZeroPages(void* block, size_t bytes);

// Makes the whole block zero again. Costs time for the pages that were touched,
// not for the block's size.
void clearZeroPages(void* block, size_t bytes);

}  // namespace compat
