// SPDX-License-Identifier: Apache-2.0
#include "compat/text_windows.h"
#include "console/program.h"

extern "C" {
// The C library leaves "*" and "?" in the arguments as they are.
int _dowildcard = 0;  // NOLINT: the name is the C library's

int wmain(int argc, wchar_t** argv);
}

int wmain(int argc, wchar_t** argv) {
  std::vector<std::string> arguments;
  arguments.reserve(static_cast<size_t>(argc));
  for (int i = 0; i < argc; ++i) arguments.push_back(compat::toUtf8(argv[i]));
  return zemtool::programMain(arguments);
}
