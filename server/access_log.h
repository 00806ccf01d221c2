// SPDX-License-Identifier: Apache-2.0
// A line for each request.
#pragma once

#include <cstdint>
#include <string>

#include "server/http/transport.h"

namespace zem::server {

enum class LogForm : uint8_t { Plain, JsonLines };

// Without a line feed. Holds no query, no body, no key, and no control character.
std::string accessLine(const AccessRecord& record, LogForm form, int64_t secondsSince1970);

}  // namespace zem::server
