// SPDX-License-Identifier: Apache-2.0
#include "console/program.h"

#include <sched.h>

#include <filesystem>
#include <system_error>

namespace zemtool {

const char* const kModuleSuffix = ".so";

std::string programPath() {
  std::error_code error;
  return std::filesystem::read_symlink("/proc/self/exe", error).native();
}

int usableProcessors() {
  cpu_set_t cpus;
  CPU_ZERO(&cpus);
  return sched_getaffinity(0, sizeof cpus, &cpus) == 0 ? CPU_COUNT(&cpus) : 1;
}

}  // namespace zemtool
