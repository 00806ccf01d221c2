#include "qwen35_gpu_attach.h"

#include "qwen35_boundary.h"

namespace qwen35rt {

void attachGpu(Qwen35Session& /*s*/, const CreateHintOpts& /*hint*/) {
  warn("GPU path unavailable - running CPU-only");
}

}  // namespace qwen35rt
