// SPDX-License-Identifier: Apache-2.0
// Pages about a command line, made from the options that it declares.
#pragma once

#include <string>
#include <vector>

#include "commands/arguments.h"

namespace zempages {

using zemtool::CommandFacts;
using zemtool::OptionFacts;

struct Release {
  std::string version;
  std::string date;  // as YYYY-MM-DD
};

// The subcommands of `program` and theirs, each behind the one that it belongs to. A name has
// all words: "plugin run".
std::vector<CommandFacts> allCommands(const CommandFacts& program);

// A manual page of section 1 in the language of man(7), with every subcommand.
std::string manualPage(const CommandFacts& program, const Release& release);

// Scripts that complete subcommands, options and the names of files.
std::string bashCompletion(const CommandFacts& program);
std::string zshCompletion(const CommandFacts& program);
std::string fishCompletion(const CommandFacts& program);

}  // namespace zempages
