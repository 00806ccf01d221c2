// SPDX-License-Identifier: Apache-2.0
#include <sstream>
#include <utility>

#include "pages.h"

namespace zempages {
namespace {

// A line of text as roff, with requests and escapes taken from it.
std::string escaped(const std::string& line) {
  std::string text;
  if (!line.empty() && (line[0] == '.' || line[0] == '\'')) text += "\\&";
  for (const char c : line) {
    if (c == '\\') {
      text += "\\e";
    } else if (c == '-') {
      text += "\\-";  // a hyphen is another character, which cannot be pasted into a shell
    } else {
      text += c;
    }
  }
  return text;
}

std::string bold(const std::string& text) { return "\\fB" + escaped(text) + "\\fR"; }
std::string italic(const std::string& text) { return "\\fI" + escaped(text) + "\\fR"; }

// Lines as they stand, in a typewriter's spacing.
void addBlock(std::string& page, const std::string& text) {
  page += ".nf\n";
  std::istringstream lines(text);
  for (std::string line; std::getline(lines, line);) page += escaped(line) + "\n";
  page += ".fi\n";
}

std::string nameOf(const OptionFacts& option) {
  std::string names;
  for (const std::string& name : option.names) {
    names += (names.empty() ? "" : ", ") + bold(name);
  }
  if (names.empty()) return italic(option.positional);
  return option.takesValue ? names + " " + italic(option.valueName) : names;
}

void addOption(std::string& page, const OptionFacts& option) {
  page += ".TP\n" + nameOf(option) + "\n" + escaped(option.description);
  if (!option.defaultValue.empty()) page += " (default: " + escaped(option.defaultValue) + ")";
  if (option.required) page += " (required)";
  page += "\n";
}

void addOptions(std::string& page, const CommandFacts& command) {
  for (const OptionFacts& option : command.options) addOption(page, option);
}

std::string usageOf(const CommandFacts& command) {
  std::string usage = "zem " + command.name + " [OPTIONS]";
  for (const OptionFacts& option : command.options) {
    if (!option.positional.empty()) usage += " " + option.positional;
  }
  return command.commands.empty() ? usage : usage + " COMMAND";
}

}  // namespace

std::vector<CommandFacts> allCommands(const CommandFacts& program) {
  std::vector<CommandFacts> all;
  for (const CommandFacts& command : program.commands) {
    all.push_back(command);
    for (CommandFacts inner : allCommands(command)) {
      inner.name = command.name + " " + inner.name;
      all.push_back(std::move(inner));
    }
  }
  return all;
}

std::string manualPage(const CommandFacts& program, const Release& release) {
  const std::string& name = program.name;
  std::string page =
      ".TH ZEM 1 " + release.date + " \"zem " + release.version + "\" \"User Commands\"\n";
  page += ".SH NAME\n" + escaped(name) + " \\- " + escaped(program.description) + "\n";
  page += ".SH SYNOPSIS\n" + bold(name) + " [" + italic("OPTIONS") + "] [" + italic("COMMAND") +
          " ...]\n";
  page += ".SH OPTIONS\n";
  addOptions(page, program);
  page += ".SH COMMANDS\n";
  for (const CommandFacts& command : allCommands(program)) {
    page += ".SS " + escaped(usageOf(command)) + "\n" + escaped(command.description) + ".\n";
    addOptions(page, command);
    page += ".PP\n";
    addBlock(page, command.footer);
  }
  page += ".SH NOTES\n";
  addBlock(page, program.footer);
  return page;
}

}  // namespace zempages
