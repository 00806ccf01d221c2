// SPDX-License-Identifier: Apache-2.0
// The subcommands of `zem plugin`, which drive a runtime plug-in through its interface as any
// other host would. What commands.h says of add functions holds for these.
#pragma once

#include "commands/arguments.h"

namespace zemtool {

void addPluginRun(Command& plugin, int& status);
void addPluginChat(Command& plugin, int& status);
void addPluginBench(Command& plugin, int& status);
void addPluginProbe(Command& plugin, int& status);

}  // namespace zemtool
