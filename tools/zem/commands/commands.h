// The subcommands of `zem`, one source file each. An add function declares the
// subcommand's options on `app` and runs it from CLI11's callback; the exit
// status goes into `status`: 0, 1 (it failed, and one line on stderr said what
// and why). Bad usage is CLI11's to report, with status 2.
#pragma once

namespace CLI {
class App;
}

namespace zemtool {

void addInfo(CLI::App& app, int& status);
void addProbe(CLI::App& app, int& status);
void addRun(CLI::App& app, int& status);
void addChat(CLI::App& app, int& status);
void addBench(CLI::App& app, int& status);
void addTokenize(CLI::App& app, int& status);
void addDevices(CLI::App& app, int& status);
void addMakeDemo(CLI::App& app, int& status);
void addConvert(CLI::App& app, int& status);
void addCompare(CLI::App& app, int& status);

}  // namespace zemtool
