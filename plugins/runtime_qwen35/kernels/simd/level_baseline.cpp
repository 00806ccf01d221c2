// SPDX-License-Identifier: Apache-2.0
// All code of this level. It is built with the level's own flags, so it includes nothing with
// inline functions that another source could end up with, and defines nothing but its table.
#include "kernels/simd/kernel_table_inl.h"
#include "kernels/simd/lanes_baseline.h"

namespace qwen35 {

extern const KernelTable kKernelsBaseline;
constinit const KernelTable kKernelsBaseline = kernelsOf<Baseline>();

}  // namespace qwen35
