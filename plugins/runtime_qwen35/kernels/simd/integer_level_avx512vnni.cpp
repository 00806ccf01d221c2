// SPDX-License-Identifier: Apache-2.0
// All integer kernels of this level. It is built with the level's own flags, so it includes
// nothing with inline functions that another source could end up with, and defines nothing but its
// table.
#include "kernels/simd/integer_lanes_avx512vnni.h"
#include "kernels/simd/integer_table_inl.h"

namespace qwen35 {

extern const IntegerKernels kIntegerKernelsAvx512Vnni;
constinit const IntegerKernels kIntegerKernelsAvx512Vnni = integerKernelsOf<Avx512Vnni>();

}  // namespace qwen35
