// SPDX-License-Identifier: Apache-2.0
// The options and subcommands of `zem`, for the program itself and for the pages that
// describe it.
#pragma once

#include "commands/arguments.h"

namespace zemtool {

// The command line of `zem`.
class ZemCommandLine : public CommandLine {
 public:
  ZemCommandLine();

  int status = 0;        // of the subcommand that ran
  bool version = false;  // the versions were asked for
};

}  // namespace zemtool
