// Environment variables of this process, and of the libraries in it that ask for
// them later. Values are UTF-8 on every system.
#pragma once

#include <optional>
#include <string>

namespace compat {

std::optional<std::string> environmentVariable(const char* name);

// Not while another thread reads the environment. On Windows an empty value
// unsets the variable: that system has no empty ones.
void setEnvironmentVariable(const char* name, const std::string& value);
void unsetEnvironmentVariable(const char* name);

}  // namespace compat
