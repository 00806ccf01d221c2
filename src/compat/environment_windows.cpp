// SPDX-License-Identifier: Apache-2.0
#include "compat/environment.h"

#include <cstdlib>

#include "compat/text_windows.h"

namespace compat {

std::optional<std::string> environmentVariable(const char* name) {
  const wchar_t* value = _wgetenv(toWide(name).c_str());
  return value == nullptr ? std::nullopt : std::optional<std::string>(toUtf8(value));
}

// The C library's own call: getenv() reads its copy, not the system's.
void setEnvironmentVariable(const char* name, const std::string& value) {
  _wputenv_s(toWide(name).c_str(), toWide(value).c_str());
}

void unsetEnvironmentVariable(const char* name) { setEnvironmentVariable(name, {}); }

}  // namespace compat
