// SPDX-License-Identifier: Apache-2.0
#include <cstdlib>

#include "compat/environment.h"

namespace compat {

std::optional<std::string> environmentVariable(const char* name) {
  const char* value = std::getenv(name);
  return value == nullptr ? std::nullopt : std::optional<std::string>(value);
}

void setEnvironmentVariable(const char* name, const std::string& value) {
  ::setenv(name, value.c_str(), 1);
}

void unsetEnvironmentVariable(const char* name) { ::unsetenv(name); }

}  // namespace compat
