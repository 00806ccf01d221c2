#include <CLI/CLI.hpp>
#include <sstream>

#include "pages.h"

namespace zempages {
namespace {

// A line of text as roff: no character of it is taken for a request or an escape.
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

std::string nameOf(const CLI::Option& option) {
  std::string names;
  for (const std::string& name : option.get_snames()) {
    names += (names.empty() ? "" : ", ") + bold("-" + name);
  }
  for (const std::string& name : option.get_lnames()) {
    names += (names.empty() ? "" : ", ") + bold("--" + name);
  }
  if (names.empty()) return italic(option.get_name(true));
  const bool takesValue = option.get_items_expected_max() > 0;
  return takesValue ? names + " " + italic(option.get_type_name()) : names;
}

void addOption(std::string& page, const CLI::Option& option) {
  page += ".TP\n" + nameOf(option) + "\n" + escaped(option.get_description());
  if (!option.get_default_str().empty()) {
    page += " (default: " + escaped(option.get_default_str()) + ")";
  }
  if (option.get_required()) page += " (required)";
  page += "\n";
}

void addOptions(std::string& page, const CLI::App& app) {
  for (const CLI::Option* option : app.get_options()) addOption(page, *option);
}

std::string usageOf(const CLI::App& command) {
  std::string usage = "zem " + command.get_name() + " [OPTIONS]";
  for (const CLI::Option* option : command.get_options()) {
    if (option->get_positional()) usage += " " + option->get_name(true);
  }
  return usage;
}

}  // namespace

std::vector<const CLI::App*> commandsOf(const CLI::App& app) {
  return app.get_subcommands([](const CLI::App*) { return true; });
}

std::string manualPage(const CLI::App& app, const Release& release) {
  const std::string& name = app.get_name();
  std::string page =
      ".TH ZEM 1 " + release.date + " \"zem " + release.version + "\" \"User Commands\"\n";
  page += ".SH NAME\n" + escaped(name) + " \\- " + escaped(app.get_description()) + "\n";
  page += ".SH SYNOPSIS\n" + bold(name) + " [" + italic("OPTIONS") + "] [" + italic("COMMAND") +
          " ...]\n";
  page += ".SH OPTIONS\n";
  addOptions(page, app);
  page += ".SH COMMANDS\n";
  for (const CLI::App* command : commandsOf(app)) {
    page +=
        ".SS " + escaped(usageOf(*command)) + "\n" + escaped(command->get_description()) + ".\n";
    addOptions(page, *command);
    page += ".PP\n";
    addBlock(page, command->get_footer());
  }
  page += ".SH NOTES\n";
  addBlock(page, app.get_footer());
  return page;
}

}  // namespace zempages
