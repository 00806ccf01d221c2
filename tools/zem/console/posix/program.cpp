// SPDX-License-Identifier: Apache-2.0
#include "console/program.h"

#include <sched.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <system_error>
#include <vector>

namespace zemtool {

const char* const kModuleSuffix = ".so";

std::string programPath() {
  std::error_code error;
  return std::filesystem::read_symlink("/proc/self/exe", error).native();
}

void restartForOpenMp() {
  std::ifstream file("/proc/self/cmdline", std::ios::binary);
  std::string all((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
  std::vector<char*> arguments;
  for (size_t at = 0; at < all.size(); at = all.find('\0', at) + 1) {
    arguments.push_back(all.data() + at);
    if (all.find('\0', at) == std::string::npos) return;
  }
  arguments.push_back(nullptr);
  execv("/proc/self/exe", arguments.data());
}

int usableProcessors() {
  cpu_set_t cpus;
  CPU_ZERO(&cpus);
  return sched_getaffinity(0, sizeof cpus, &cpus) == 0 ? CPU_COUNT(&cpus) : 1;
}

}  // namespace zemtool
