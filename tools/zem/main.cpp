// SPDX-License-Identifier: Apache-2.0
// zem: the command-line host. Each subcommand is a source file of its name.
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

// Without the program's name. The parser would take "-sys" for the flags -s, -y and -s, and
// "-np" for -n with the value p.
std::vector<std::string> readArguments(std::vector<std::string> arguments) {
  if (!arguments.empty()) arguments.erase(arguments.begin());
  for (std::string& argument : arguments) {
    if (argument == "--") break;
    if (argument == "-sys" || argument.starts_with("-sys=")) {
      argument.replace(0, 4, "--system-prompt");
    } else if (argument == "-np" || argument.starts_with("-np=")) {
      argument.replace(0, 3, "--sequences");
    }
  }
  return arguments;
}

// Commands that had another name.
void explainOldNames(const std::vector<std::string>& arguments) {
  if (arguments.empty()) return;
  const std::string& name = arguments.front();
  if (name == "probe") {
    throw UsageError("`zem " + name + "` is now `zem plugin " + name + "`");
  }
}

int runProgram(const std::vector<std::string>& arguments) {
  ZemCommandLine line;
  auto outcome = CommandLine::Outcome::Nothing;
  try {
    const std::vector<std::string> own = readArguments(arguments);
    explainOldNames(own);
    outcome = line.parse(own);
  } catch (const UsageError& error) {
    complain(std::string(error.what()) + " (see `" + line.chosen() + " --help`)");
    return 2;
  }
  if (outcome == CommandLine::Outcome::Help) return guarded([&] { writeOut(line.help()); });
  if (line.version) return guarded([] { writeOut(versionText()); });
  if (outcome == CommandLine::Outcome::Nothing) return guarded([&] { writeOut(line.help()); });
  return line.status;
}

}  // namespace

int programMain(const std::vector<std::string>& arguments) {
  const StandardStreams streams;
  try {
    return runProgram(arguments);
  } catch (const std::exception& error) {
    complain(error.what());
    return 1;
  }
}

}  // namespace zemtool
