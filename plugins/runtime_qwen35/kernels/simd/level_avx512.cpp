// SPDX-License-Identifier: Apache-2.0
// All code of this level. It is built with the level's own flags, so it includes nothing with
// inline functions that another source could end up with, and defines nothing but its table.
#include "kernels/simd/kernel_table_inl.h"
#include "kernels/simd/lanes_avx512.h"

namespace qwen35 {

extern const KernelTable kKernelsAvx512;
constinit const KernelTable kKernelsAvx512 = kernelsOf<Avx512>();

}  // namespace qwen35
