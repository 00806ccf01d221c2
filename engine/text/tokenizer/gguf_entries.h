// SPDX-License-Identifier: Apache-2.0
// The metadata of a GGUF file that lies in memory.
#pragma once

#include <string_view>
#include <vector>

#include "kiv/container/gguf.h"

namespace zem::text {

// The entries of `bytes`, a GGUF file of version 2 or 3; tensors behind them are not
// looked at. Views point into `bytes`. Throws ReadError where the bytes end inside an
// entry, and for more than 65536 entries.
std::vector<kiv::GgufValue> readGgufEntries(std::string_view bytes);

}  // namespace zem::text
