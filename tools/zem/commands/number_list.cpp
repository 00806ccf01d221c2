#include "commands/number_list.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <charconv>
#include <system_error>

namespace zemtool {
namespace {

bool readNumber(const std::string& text, int low, int high, int& number) {
  const char* end = text.data() + text.size();
  const auto [stop, error] = std::from_chars(text.data(), end, number);
  return error == std::errc() && stop == end && number >= low && number <= high;
}

std::vector<int> readList(const std::string& option, const std::string& text, int low, int high) {
  std::vector<int> numbers;
  for (size_t at = 0; at <= text.size();) {
    const size_t comma = std::min(text.find(',', at), text.size());
    const std::string item = text.substr(at, comma - at);
    int number = 0;
    if (!readNumber(item, low, high, number)) {
      std::string message = "\"" + item + "\"";
      if (item != text) message += " in \"" + text + "\"";
      message += " is not a whole number from " + std::to_string(low);
      message += " to " + std::to_string(high);
      throw CLI::ValidationError(option,
                                 message + "; several are separated by commas, as in 1,2,4");
    }
    numbers.push_back(number);
    at = comma + 1;
  }
  return numbers;
}

}  // namespace

void addNumberList(CLI::App& command, const std::string& names, const std::string& description,
                   int low, int high, std::vector<int>& numbers) {
  const std::string option = names.substr(names.find("--"));
  command
      .add_option_function<std::string>(
          names,
          [=, &numbers](const std::string& text) { numbers = readList(option, text, low, high); },
          description)
      ->type_name("N,...");
}

}  // namespace zemtool
