// SPDX-License-Identifier: Apache-2.0
#include "commands/command_line.h"

#include "commands/commands.h"

namespace zemtool {
namespace {

constexpr const char* kFooter =
    "Examples:\n"
    "  zem make-demo demo.zem                 a small model to try things with\n"
    "  zem chat -m demo.zem -n 60             a conversation; random words have no end\n"
    "  zem convert FOLDER -o model.zem        a downloaded model, made ready\n"
    "  zem run -m model.zem -p \"Why?\"         one answer\n"
    "`zem COMMAND --help` has the options of a command.\n"
    "\n"
    "Exit status: 0 success, 1 it failed and one line says why, 2 bad usage.";

}  // namespace

ZemCommandLine::ZemCommandLine() : CommandLine("zem", "Runs Qwen3.5 hybrid language models.") {
  footer(kFooter);
  flag("--version", version, "Print the versions of this program and of the plug-in");
  for (const auto add :
       {addRun, addChat, addServe, addBench, addInfo, addTokenize, addRender, addDevices,
        addMakeDemo, addConvert, addCompare, addPerplexity, addPlugin}) {
    add(*this, status);
  }
}

}  // namespace zemtool
