// SPDX-License-Identifier: Apache-2.0
#include "host/modules.h"

#include <system_error>

#include "compat/files.h"
#include "console/program.h"

namespace zemtool {

std::filesystem::path moduleFile(const std::string& name) {
  const auto folder = compat::pathOf(programPath()).parent_path();
  const std::string file = name + kModuleSuffix;
  const auto installed = (folder / ZEM_MODULE_FOLDER / file).lexically_normal();
  std::error_code error;
  const bool onlyInstalled =
      !std::filesystem::exists(folder / file, error) && std::filesystem::exists(installed, error);
  return onlyInstalled ? installed : folder / file;
}

}  // namespace zemtool
