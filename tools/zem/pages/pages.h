// Pages about a command line, from the options that it declares: nothing in them
// is said twice, so nothing can drift.
#pragma once

#include <string>
#include <vector>

namespace CLI {
class App;
}

namespace zempages {

struct Release {
  std::string version;
  std::string date;  // as YYYY-MM-DD
};

// A manual page of section 1 in the language of man(7), with every subcommand.
std::string manualPage(const CLI::App& app, const Release& release);

// Scripts that complete subcommands, options and the names of files.
std::string bashCompletion(const CLI::App& app);
std::string zshCompletion(const CLI::App& app);
std::string fishCompletion(const CLI::App& app);

// Subcommands that the help lists, in its order.
std::vector<const CLI::App*> commandsOf(const CLI::App& app);

}  // namespace zempages
