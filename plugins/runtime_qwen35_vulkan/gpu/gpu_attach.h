// SPDX-License-Identifier: Apache-2.0
// The last step of opening a session: bringing its products to the GPU.
#pragma once

#include "session/hint.h"
#include "session/session.h"

namespace qwen35rt {

// Runs after the model is bound: uploads all weights, but none for a plan that keeps every layer
// on the CPU, and installs the model's hook. When any step fails or throws, what was made is
// released, the session works on the CPU, and one line on the standard error stream says so,
// without asking for memory; never an error. Another line gives the reason, if the machine has a
// device. Of a session on the GPU, a line says what the device's limits leave to the CPU.
void attachGpu(Qwen35Session& s, const CreateHintOpts& hint) noexcept;

}  // namespace qwen35rt
