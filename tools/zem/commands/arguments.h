// SPDX-License-Identifier: Apache-2.0
// The command line of a program: options, flags and subcommands, how they are read, and
// what the help says of them.
//
// The values that options fill in are the caller's. They must stay where they are until
// the arguments are parsed. One thread.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace CLI {
class App;
class Option;
}  // namespace CLI

namespace zemtool {

// One declared option. Each function changes it and returns it. A value that a check
// refuses is bad usage, and the message names the option.
class Option {
 public:
  // Returns what is wrong with a value; the empty text when nothing is.
  using Check = std::function<std::string(const std::string& value)>;

  Option& required();
  Option& valueName(const std::string& name);  // "FILE" in the help
  Option& showDefault();                       // the help names the value of now
  Option& check(const Check& complaint);
  Option& wholeNumber(int low, int high);
  // A number from `low` to `high`; `meaning` ends the sentence `"x" is not ...`.
  Option& number(float low, float high, const std::string& meaning);
  Option& oneOf(const std::vector<std::string>& values);
  Option& excludes(const Option& other);
  // `given` becomes true with the option, whatever its value.
  Option& noteIn(bool& given);

 private:
  friend class Command;
  explicit Option(CLI::Option& option) : option_(&option) {}

  CLI::Option* option_;
};

// What the help of an option is made of.
struct OptionFacts {
  std::vector<std::string> names;  // "-m", "--model"; none for a positional argument alone
  std::string positional;          // its name as an argument; empty when it has none
  std::string valueName;
  std::string description;
  std::string defaultValue;  // as shown
  bool takesValue = false;
  bool required = false;
};

struct CommandFacts {
  std::string name;
  std::string description;
  std::string footer;
  std::vector<OptionFacts> options;    // in the order of the help
  std::vector<CommandFacts> commands;  // likewise
};

// The program or one of its subcommands. A light handle: copies are the same command.
class Command {
 public:
  // Names are separated by commas: "-m,--model". One without dashes makes the option an
  // argument that needs no name.
  Option option(const std::string& names, std::string& value, const std::string& description);
  Option option(const std::string& names, int32_t& value, const std::string& description);
  Option option(const std::string& names, uint64_t& value, const std::string& description);
  Option option(const std::string& names, float& value, const std::string& description);
  // May be given several times.
  Option option(const std::string& names, std::vector<std::string>& values,
                const std::string& description);
  // `take` reads the value, and returns what is wrong with it.
  Option option(const std::string& names, const Option::Check& take,
                const std::string& description);
  // "--verify,!--no-verify": the second clears the flag.
  Option flag(const std::string& names, bool& value, const std::string& description);

  // The help has subcommands with a heading of their own below it.
  Command command(const std::string& name, const std::string& description,
                  const std::string& heading = {});
  // The heading of the options that are declared from now on.
  void heading(const std::string& text);
  void footer(const std::string& text);
  // Called at the end of parsing, when this subcommand was chosen. May throw.
  void action(const std::function<void()>& run);

  CommandFacts facts() const;

 protected:
  explicit Command(CLI::App* app) : app_(app) {}

  CLI::App* app_;
};

// The whole command line; owns what was declared.
class CommandLine : public Command {
 public:
  enum class Outcome {
    Help,     // was asked for
    Nothing,  // no subcommand was chosen, or one that has subcommands and none of them
    Ran,      // the action of the chosen one has returned
  };

  CommandLine(const std::string& name, const std::string& description);
  ~CommandLine();
  CommandLine(const CommandLine&) = delete;
  CommandLine& operator=(const CommandLine&) = delete;

  // Reads the arguments, which come without the program's name, and runs the action of the
  // subcommand that they choose. Throws UsageError, and what the action throws.
  Outcome parse(std::vector<std::string> arguments);

  // After parse(): the help of the chosen subcommand, or of the program.
  std::string help() const;
  // Likewise: "zem plugin run", or "zem".
  std::string chosen() const;

 private:
  std::unique_ptr<CLI::App> owned_;
};

}  // namespace zemtool
