// zem: the command-line host. Each subcommand is a source file of its name.
#include <CLI/CLI.hpp>
#include <algorithm>
#include <exception>
#include <string>
#include <vector>

#include "commands/command_line.h"
#include "console/program.h"
#include "console/streams.h"
#include "console/terminal.h"
#include "host/plugin_host.h"

namespace zemtool {
namespace {

std::string versionText() {
  std::string text = "zem " ZEM_VERSION "\n";
  try {
    const std::string path = findPlugin("");
    const ZEMPluginDescriptor& plugin = PluginHost(path).plugin();
    text += std::string(plugin.name) + " version " + std::to_string(plugin.plugin_version) + " (" +
            path + ")\n";
  } catch (const Failure&) {
    text += "no runtime plug-in found\n";
  }
  return text;
}

// CLI11 takes "-sys" for the flags s, y and s.
std::vector<std::string> readArguments(std::vector<std::string> arguments) {
  if (!arguments.empty()) arguments.erase(arguments.begin());  // the program's own name
  for (std::string& argument : arguments) {
    if (argument == "--") break;
    if (argument == "-sys" || argument.starts_with("-sys=")) {
      argument.replace(0, 4, "--system-prompt");
    }
  }
  std::reverse(arguments.begin(), arguments.end());  // as CLI11 wants a vector
  return arguments;
}

int complainOfUsage(const CLI::App& app, const std::string& message) {
  std::string command = app.get_name();
  for (const CLI::App* chosen : app.get_subcommands()) command += " " + chosen->get_name();
  complain(message + " (see `" + command + " --help`)");
  return 2;
}

int runProgram(const std::vector<std::string>& arguments) {
  CLI::App app;
  bool version = false;
  int status = 0;
  declareCommandLine(app, status, version);
  try {
    app.parse(readArguments(arguments));
  } catch (const CLI::CallForHelp&) {
    return guarded([&] { writeOut(app.help()); });
  } catch (const CLI::ParseError& error) {
    return complainOfUsage(app, error.what());
  } catch (const UsageError& error) {
    return complainOfUsage(app, error.what());
  }
  if (version) return guarded([] { writeOut(versionText()); });
  if (app.get_subcommands().empty()) return guarded([&] { writeOut(app.help()); });
  return status;
}

}  // namespace
}  // namespace zemtool

int compat::programMain(const std::vector<std::string>& arguments) {
  const StandardStreams streams;
  try {
    return zemtool::runProgram(arguments);
  } catch (const std::exception& error) {
    zemtool::complain(error.what());
    return 1;
  }
}
