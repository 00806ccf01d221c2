#include "commands/command_line.h"

#include <CLI/CLI.hpp>

#include "commands/commands.h"

namespace zemtool {
namespace {

constexpr const char* kFooter =
    "Examples:\n"
    "  zem make-demo demo.zem                 a small model to try things with\n"
    "  zem chat -m demo.zem                   a conversation\n"
    "  zem convert FOLDER -o model.zem        a downloaded model, made ready\n"
    "  zem run -m demo.zem -p \"Once upon\"     one completion\n"
    "`zem COMMAND --help` has the options of a command.\n"
    "\n"
    "Exit status: 0 success, 1 it failed and one line says why, 2 bad usage.";

}  // namespace

void declareCommandLine(CLI::App& app, int& status, bool& version) {
  app.name("zem");
  app.description("Runs Qwen3.5 hybrid language models through a runtime plug-in.");
  app.footer(kFooter);
  app.require_subcommand(0, 1);
  app.allow_windows_style_options(false);  // "/models/a.zem" is a file on Windows, too
  app.add_flag("--version", version, "Print the versions of this program and of the plug-in");
  addChat(app, status);
  addRun(app, status);
  addInfo(app, status);
  addProbe(app, status);
  addBench(app, status);
  addTokenize(app, status);
  addDevices(app, status);
  addMakeDemo(app, status);
  addConvert(app, status);
  addCompare(app, status);
}

}  // namespace zemtool
