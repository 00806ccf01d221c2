// Everything that is compiled for this level. Built with the level's own flags, so
// it includes nothing whose inline functions another source could end up with,
// and defines nothing but its tables.
#include "kernels/simd/lanes_avx512.h"
#include "kernels/simd/row_dots_inl.h"
#include "kernels/simd/step_loops_inl.h"
#include "kernels/simd/token_dots_inl.h"

namespace qwen35 {

constinit const RowDotsTable kRowDotsAvx512 = rowDotsTableOf<Avx512>();
constinit const TokenDotsTable kTokenDotsAvx512 = tokenDotsTableOf<Avx512>();
constinit const StepLoops kStepLoopsAvx512 = stepLoopsOf<Avx512>();

}  // namespace qwen35
