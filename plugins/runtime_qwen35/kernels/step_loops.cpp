#include "kernels/step_loops.h"

namespace qwen35 {

const StepLoops& stepLoops(CpuLevel level) {
  switch (level) {
    case CpuLevel::Avx512:
      return kStepLoopsAvx512;
    case CpuLevel::Avx2:
      return kStepLoopsAvx2;
    case CpuLevel::Baseline:
      break;
  }
  return kStepLoopsBaseline;
}

}  // namespace qwen35
