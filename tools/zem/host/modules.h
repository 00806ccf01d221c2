// SPDX-License-Identifier: Apache-2.0
// The modules that belong to this program.
#pragma once

#include <filesystem>
#include <string>

namespace zemtool {

// The file of the module `name`, which has no suffix. It lies beside this program in a build
// and on Windows, else in the library folder of an installation. When it is in neither, the
// result is the file beside this program.
std::filesystem::path moduleFile(const std::string& name);

}  // namespace zemtool
