// SPDX-License-Identifier: Apache-2.0
// Random names for answers and requests.
#pragma once

#include <string>
#include <string_view>

namespace zem::server {

// `prefix` and 24 random characters, a to z and 0 to 9. Any thread.
std::string randomId(std::string_view prefix);

}  // namespace zem::server
