// SPDX-License-Identifier: Apache-2.0
// Environment variables of this process, as its libraries see them too. Values are UTF-8 on
// every system.
#pragma once

#include <optional>
#include <string>

namespace compat {

std::optional<std::string> environmentVariable(const char* name);

// No other thread may read the environment meanwhile. On Windows an empty value unsets the
// variable, because that system has no empty ones.
void setEnvironmentVariable(const char* name, const std::string& value);
void unsetEnvironmentVariable(const char* name);

}  // namespace compat
