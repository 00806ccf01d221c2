// SPDX-License-Identifier: Apache-2.0
#include "commands/number_list.h"

#include <algorithm>
#include <charconv>
#include <system_error>
#include <utility>

namespace zemtool {
namespace {

bool readNumber(const std::string& text, int low, int high, int& number) {
  const char* end = text.data() + text.size();
  const auto [stop, error] = std::from_chars(text.data(), end, number);
  return error == std::errc() && stop == end && number >= low && number <= high;
}

// Returns what is wrong with `text`; `numbers` has changed only if nothing is.
std::string readList(const std::string& text, int low, int high, std::vector<int>& numbers) {
  std::vector<int> list;
  for (size_t at = 0; at <= text.size();) {
    const size_t comma = std::min(text.find(',', at), text.size());
    const std::string item = text.substr(at, comma - at);
    int number = 0;
    if (!readNumber(item, low, high, number)) {
      std::string message = "\"" + item + "\"";
      if (item != text) message += " in \"" + text + "\"";
      message += " is not a whole number from " + std::to_string(low);
      message += " to " + std::to_string(high);
      return message + "; several are separated by commas, as in 1,2,4";
    }
    list.push_back(number);
    at = comma + 1;
  }
  numbers = std::move(list);
  return {};
}

}  // namespace

void addNumberList(Command& command, const std::string& names, const std::string& description,
                   int low, int high, std::vector<int>& numbers) {
  const auto take = [=, &numbers](const std::string& text) {
    return readList(text, low, high, numbers);
  };
  command.option(names, take, description).valueName("N,...");
}

}  // namespace zemtool
