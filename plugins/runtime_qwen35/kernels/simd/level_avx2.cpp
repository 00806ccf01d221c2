// Everything that is compiled for this level. Built with the level's own flags, so
// it includes nothing whose inline functions another source could end up with,
// and defines nothing but its tables.
#include "kernels/simd/lanes_avx2.h"
#include "kernels/simd/row_dots_inl.h"
#include "kernels/simd/step_loops_inl.h"
#include "kernels/simd/token_dots_inl.h"

namespace qwen35 {

constinit const RowDotsTable kRowDotsAvx2 = rowDotsTableOf<Avx2>();
constinit const TokenDotsTable kTokenDotsAvx2 = tokenDotsTableOf<Avx2>();
constinit const StepLoops kStepLoopsAvx2 = stepLoopsOf<Avx2>();

}  // namespace qwen35
