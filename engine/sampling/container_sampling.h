// SPDX-License-Identifier: Apache-2.0
// The sampling that a model's publisher recommends.
#pragma once

#include "engine/sampling_options.h"
#include "kiv/status.h"
#include "kiv/zem_loader.h"

namespace zem {

// defaultSampling(thinking), but with the values that the container's metadata has:
// `sampling.temperature`, `sampling.top_p` and `sampling.presence_penalty` (F32), `sampling.top_k`
// (U32). Fails with InvalidFormat and a message that begins with "metadata entry KEY: " for an
// entry of another type or out of its range; `out` then stays as it was.
kiv::Status containerSampling(const kiv::ZEMLoader& loader, bool thinking, SamplingOptions& out);

}  // namespace zem
