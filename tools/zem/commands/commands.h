// SPDX-License-Identifier: Apache-2.0
// The subcommands of `zem`, one source file each. An add function declares the subcommand
// and its options. When the subcommand runs it leaves its exit status in `status`: 0, or 1
// after a failure that one line on stderr has explained. Bad usage throws UsageError.
#pragma once

#include "commands/arguments.h"

namespace zemtool {

void addRun(Command& program, int& status);
void addChat(Command& program, int& status);
void addBench(Command& program, int& status);
void addInfo(Command& program, int& status);
void addServe(Command& program, int& status);
void addTokenize(Command& program, int& status);
void addRender(Command& program, int& status);
void addDevices(Command& program, int& status);
void addMakeDemo(Command& program, int& status);
void addConvert(Command& program, int& status);
void addCompare(Command& program, int& status);
void addPerplexity(Command& program, int& status);
void addPlugin(Command& program, int& status);  // has subcommands of its own

}  // namespace zemtool
