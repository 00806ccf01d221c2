// Where the modules that belong to this program lie.
#pragma once

#include <filesystem>
#include <string>

namespace zemtool {

// The file of the module `name`, which has no suffix: beside this program, as in a
// build and on Windows, else in the library folder of an installation. Where it is
// in neither, the first of the two.
std::filesystem::path moduleFile(const std::string& name);

}  // namespace zemtool
