// What `zem` understands: its options and subcommands, for the program itself and
// for the pages that describe it.
#pragma once

namespace CLI {
class App;
}

namespace zemtool {

// Name, description, footer and subcommands of the program. A subcommand that runs
// leaves its exit status in `status`, which must outlive `app`'s parsing; `version`
// becomes true when the versions are asked for.
void declareCommandLine(CLI::App& app, int& status, bool& version);

}  // namespace zemtool
