// SPDX-License-Identifier: Apache-2.0
// Options that take several numbers: "128,512".
#pragma once

#include <string>
#include <vector>

#include "commands/arguments.h"

namespace zemtool {

// Adds an option that takes a list of whole numbers from `low` to `high`, separated by commas.
// `names` ends in the long name. `numbers` changes only when the option is given. Any other
// value is bad usage, and the message says what is expected.
void addNumberList(Command& command, const std::string& names, const std::string& description,
                   int low, int high, std::vector<int>& numbers);

}  // namespace zemtool
