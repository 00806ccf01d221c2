// SPDX-License-Identifier: Apache-2.0
// The start of a program, and facts about the process.
#pragma once

#include <string>
#include <vector>

namespace zemtool {

// The program defines it in place of main(). The arguments are UTF-8 on every system, and the
// first one is the program's own name.
int programMain(const std::vector<std::string>& arguments);

// The program's own file; empty when the system does not tell.
std::string programPath();

// OpenMP reads the environment when it is loaded. Where this program has loaded it already, the
// program starts anew, with its arguments and the environment of now. Does nothing where modules
// have an OpenMP of their own, as on Windows, and where the system does not allow it.
void restartForOpenMp();

// The number of processors that this process may run on.
int usableProcessors();

// The ending of a module's file name: ".so" or ".dll".
extern const char* const kModuleSuffix;

}  // namespace zemtool
