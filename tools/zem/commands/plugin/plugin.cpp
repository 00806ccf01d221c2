// SPDX-License-Identifier: Apache-2.0
#include "commands/plugin/plugin.h"

#include "commands/commands.h"

namespace zemtool {

void addPlugin(Command& program, int& status) {
  Command plugin = program.command("plugin", "Drive a runtime plug-in, as other hosts do",
                                   "Devices and plug-ins");
  addPluginRun(plugin, status);
  addPluginChat(plugin, status);
  addPluginBench(plugin, status);
  addPluginProbe(plugin, status);
  plugin.footer(
      "A plug-in computes models with 32 layers and the shapes of four billion weights, on the\n"
      "GPU where there is one. `zem run` and `zem chat` need no plug-in and compute every size.\n"
      "\nExample:\n  zem plugin run -m model.zem -p \"Once upon\"");
}

}  // namespace zemtool
