// The last step of opening a session: bringing its products to the GPU.
#pragma once

#include "session/session.h"

namespace qwen35rt {

// Runs after the model is bound: uploads all weights and installs the model's
// hook. When any step fails, what was made is released, the session works on the
// CPU, and one line on the standard error stream says so; never an error.
void attachGpu(Qwen35Session& s, const CreateHintOpts& hint);

}  // namespace qwen35rt
