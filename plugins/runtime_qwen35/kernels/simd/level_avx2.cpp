// SPDX-License-Identifier: Apache-2.0
// All code of this level. It is built with the level's own flags, so it includes nothing with
// inline functions that another source could end up with, and defines nothing but its table.
#include "kernels/simd/kernel_table_inl.h"
#include "kernels/simd/lanes_avx2.h"

namespace qwen35 {

extern const KernelTable kKernelsAvx2;
constinit const KernelTable kKernelsAvx2 = kernelsOf<Avx2>();

}  // namespace qwen35
