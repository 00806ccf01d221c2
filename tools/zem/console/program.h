// Where a program begins, and where it lies.
#pragma once

#include <string>
#include <vector>

namespace compat {

// What main() is elsewhere: defined by the program, called with the arguments, the
// program's own name first, as UTF-8 on every system.
int programMain(const std::vector<std::string>& arguments);

// The file that this program was started from; empty when the system does not tell.
std::string programPath();

// Processors that this process may run on.
int usableProcessors();

// What the names of modules end in: ".so" or ".dll".
extern const char* const kModuleSuffix;

}  // namespace compat
