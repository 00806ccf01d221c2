// Options that take several numbers: "128,512".
#pragma once

#include <string>
#include <vector>

namespace CLI {
class App;
}

namespace zemtool {

// Adds an option whose value is a list of whole numbers from `low` to `high`,
// separated by commas; `names` ends in the long one. `numbers` keeps what it holds unless the
// option is given. Another value is bad usage, and the message says what is expected.
void addNumberList(CLI::App& command, const std::string& names, const std::string& description,
                   int low, int high, std::vector<int>& numbers);

}  // namespace zemtool
