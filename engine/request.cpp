// SPDX-License-Identifier: Apache-2.0
#include "engine/request.h"

namespace zem {

void Listener::onPrompt(size_t /*done*/, size_t /*total*/) {}

}  // namespace zem
