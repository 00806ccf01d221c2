// SPDX-License-Identifier: Apache-2.0
// The one source that includes CLI11, which takes longer to compile than all else here.
#include "commands/arguments.h"

#include <CLI/CLI.hpp>
#include <algorithm>

#include "console/terminal.h"

namespace zemtool {
namespace {

// Without a description, so that the help does not show it.
CLI::Validator hidden(const Option::Check& complaint) {
  return {[complaint](std::string& value) { return complaint(value); }, ""};
}

std::string complaintOfNumber(const std::string& text, float low, float high,
                              const std::string& meaning) {
  float value = 0;
  // CLI::Range lets a NaN pass.
  if (CLI::detail::lexical_cast(text, value) && value >= low && value <= high) return {};
  return "\"" + text + "\" is not " + meaning;
}

OptionFacts factsOf(const CLI::Option& option) {
  OptionFacts facts;
  for (const std::string& name : option.get_snames()) facts.names.push_back("-" + name);
  for (const std::string& name : option.get_lnames()) facts.names.push_back("--" + name);
  if (option.get_positional()) facts.positional = option.get_name(true);
  facts.valueName = option.get_type_name();
  facts.description = option.get_description();
  facts.defaultValue = option.get_default_str();
  facts.takesValue = option.get_items_expected_max() > 0;
  facts.required = option.get_required();
  return facts;
}

std::vector<const CLI::App*> commandsOf(const CLI::App& app) {
  return app.get_subcommands([](const CLI::App*) { return true; });
}

// The subcommands that were chosen, each inside the one before.
std::vector<const CLI::App*> chosenIn(const CLI::App& app) {
  std::vector<const CLI::App*> chosen;
  const CLI::App* last = &app;
  while (!last->get_subcommands().empty()) {
    last = last->get_subcommands().front();
    chosen.push_back(last);
  }
  return chosen;
}

CommandFacts factsOf(const CLI::App& app) {
  CommandFacts facts;
  facts.name = app.get_name();
  facts.description = app.get_description();
  facts.footer = app.get_footer();
  for (const CLI::Option* option : app.get_options()) facts.options.push_back(factsOf(*option));
  for (const CLI::App* command : commandsOf(app)) facts.commands.push_back(factsOf(*command));
  return facts;
}

}  // namespace

Option& Option::required() {
  option_->required();
  return *this;
}

Option& Option::valueName(const std::string& name) {
  option_->type_name(name);
  return *this;
}

Option& Option::showDefault() {
  option_->capture_default_str();
  return *this;
}

Option& Option::check(const Check& complaint) {
  option_->check(hidden(complaint));
  return *this;
}

Option& Option::wholeNumber(int low, int high) {
  option_->check(CLI::Range(low, high).description(""));
  return *this;
}

Option& Option::number(float low, float high, const std::string& meaning) {
  return check(
      [=](const std::string& text) { return complaintOfNumber(text, low, high, meaning); });
}

Option& Option::oneOf(const std::vector<std::string>& values) {
  option_->check(CLI::IsMember(values).description(""));
  return *this;
}

Option& Option::excludes(const Option& other) {
  option_->excludes(other.option_);
  return *this;
}

Option& Option::noteIn(bool& given) {
  option_->each([&given](const std::string&) { given = true; });
  return *this;
}

Option Command::option(const std::string& names, std::string& value,
                       const std::string& description) {
  return Option(*app_->add_option(names, value, description));
}

Option Command::option(const std::string& names, int32_t& value, const std::string& description) {
  return Option(*app_->add_option(names, value, description));
}

Option Command::option(const std::string& names, uint64_t& value, const std::string& description) {
  return Option(*app_->add_option(names, value, description));
}

Option Command::option(const std::string& names, float& value, const std::string& description) {
  return Option(*app_->add_option(names, value, description));
}

Option Command::option(const std::string& names, std::vector<std::string>& values,
                       const std::string& description) {
  return Option(*app_->add_option(names, values, description)->allow_extra_args(false));
}

Option Command::option(const std::string& names, const Option::Check& take,
                       const std::string& description) {
  const std::string shown = names.substr(std::min(names.size(), names.find("--")));
  const auto read = [take, shown](const std::string& value) {
    const std::string complaint = take(value);
    if (!complaint.empty()) throw CLI::ValidationError(shown, complaint);
  };
  return Option(*app_->add_option_function<std::string>(names, read, description));
}

Option Command::flag(const std::string& names, bool& value, const std::string& description) {
  return Option(*app_->add_flag(names, value, description));
}

Command Command::command(const std::string& name, const std::string& description,
                         const std::string& heading) {
  app_->require_subcommand(0, 1);
  CLI::App* command = app_->add_subcommand(name, description);
  if (!heading.empty()) command->group(heading);
  return Command(command);
}

void Command::heading(const std::string& text) { app_->option_defaults()->group(text); }

void Command::footer(const std::string& text) { app_->footer(text); }

void Command::action(const std::function<void()>& run) { app_->callback(run); }

CommandFacts Command::facts() const { return factsOf(*app_); }

CommandLine::CommandLine(const std::string& name, const std::string& description)
    : Command(nullptr), owned_(std::make_unique<CLI::App>(description, name)) {
  app_ = owned_.get();
  app_->allow_windows_style_options(false);  // "/models/a.zem" is a file on Windows, too
}

CommandLine::~CommandLine() = default;

CommandLine::Outcome CommandLine::parse(std::vector<std::string> arguments) {
  std::reverse(arguments.begin(), arguments.end());  // as CLI11 wants a vector
  try {
    app_->parse(std::move(arguments));
  } catch (const CLI::CallForHelp&) {
    return Outcome::Help;
  } catch (const CLI::ParseError& error) {
    throw UsageError(error.what());
  }
  const std::vector<const CLI::App*> chosen = chosenIn(*app_);
  return chosen.empty() || !commandsOf(*chosen.back()).empty() ? Outcome::Nothing : Outcome::Ran;
}

std::string CommandLine::help() const { return app_->help(); }

std::string CommandLine::chosen() const {
  std::string text = app_->get_name();
  for (const CLI::App* command : chosenIn(*app_)) text += " " + command->get_name();
  return text;
}

}  // namespace zemtool
