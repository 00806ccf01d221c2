#include <CLI/CLI.hpp>

#include "pages.h"

namespace zempages {
namespace {

bool takesValue(const CLI::Option& option) { return option.get_items_expected_max() > 0; }

// Help names such values FILE, or after what the file is.
bool takesFile(const CLI::Option& option) {
  const std::string type = option.get_type_name();
  return type == "FILE" || type == "INPUT";
}

bool named(const CLI::Option& option) {
  return !option.get_snames().empty() || !option.get_lnames().empty();
}

std::vector<std::string> spellings(const CLI::Option& option) {
  std::vector<std::string> all;
  for (const std::string& name : option.get_snames()) all.push_back("-" + name);
  for (const std::string& name : option.get_lnames()) all.push_back("--" + name);
  return all;
}

std::string joined(const std::vector<std::string>& words, const char* separator) {
  std::string text;
  for (const std::string& word : words) text += (text.empty() ? "" : separator) + word;
  return text;
}

bool hasPositional(const CLI::App& app) {
  return !app.get_options([](const CLI::Option* option) { return option->get_positional(); })
              .empty();
}

// `text` with a backslash in front of each of `characters`.
std::string guarded(const std::string& text, const std::string& characters) {
  std::string result;
  for (const char c : text) {
    if (characters.find(c) != std::string::npos) result += '\\';
    result += c;
  }
  return result;
}

// Between the single quotes of bash and zsh.
std::string quotable(const std::string& text) {
  std::string result;
  for (const char c : text) result += c == '\'' ? "'\\''" : std::string(1, c);
  return result;
}

// What bash needs to know of a command: its options, and which of them are
// followed by the name of a file or by something else.
struct Words {
  std::vector<std::string> options;
  std::vector<std::string> files;
  std::vector<std::string> values;
};

Words wordsOf(const CLI::App& app) {
  Words words;
  for (const CLI::Option* option : app.get_options()) {
    for (const std::string& name : spellings(*option)) {
      words.options.push_back(name);
      if (takesFile(*option)) {
        words.files.push_back(name);
      } else if (takesValue(*option)) {
        words.values.push_back(name);
      }
    }
  }
  return words;
}

std::string bashCase(const CLI::App& app, const std::string& pattern) {
  const Words words = wordsOf(app);
  return "    " + pattern + ")\n      options='" + joined(words.options, " ") + "'\n      files='" +
         joined(words.files, " ") + "'\n      values='" + joined(words.values, " ") +
         "'\n      positional=" + (hasPositional(app) ? "yes" : "") + "\n      ;;\n";
}

std::string zshDescription(const std::string& text) { return quotable(guarded(text, "[]:\\")); }

// An argument of zsh's _arguments.
std::string zshOption(const CLI::Option& option) {
  std::string value;
  if (takesValue(option)) {
    value =
        ":" + zshDescription(option.get_type_name()) + ":" + (takesFile(option) ? "_files" : "");
  }
  const std::vector<std::string> names = spellings(option);
  const std::string description = "[" + zshDescription(option.get_description()) + "]";
  if (names.size() == 1) return "'" + names[0] + description + value + "'";
  return "'(" + joined(names, " ") + ")'{" + joined(names, ",") + "}'" + description + value + "'";
}

std::string zshArguments(const CLI::App& app) {
  std::string text;
  for (const CLI::Option* option : app.get_options()) {
    if (named(*option)) text += " \\\n            " + zshOption(*option);
  }
  if (hasPositional(app)) text += " \\\n            '*:file:_files'";
  return text;
}

std::string fishQuoted(const std::string& text) { return "'" + guarded(text, "\\'") + "'"; }

void addFishOptions(std::string& script, const CLI::App& app, const std::string& condition) {
  for (const CLI::Option* option : app.get_options()) {
    if (!named(*option)) continue;
    script += "complete -c zem -n '" + condition + "'";
    for (const std::string& name : option->get_snames()) script += " -s " + name;
    for (const std::string& name : option->get_lnames()) script += " -l " + name;
    if (takesFile(*option)) {
      script += " -r -F";
    } else if (takesValue(*option)) {
      script += " -x";
    }
    script += " -d " + fishQuoted(option->get_description()) + "\n";
  }
  if (hasPositional(app)) script += "complete -c zem -n '" + condition + "' -F\n";
}

std::vector<std::string> namesOf(const std::vector<const CLI::App*>& commands) {
  std::vector<std::string> names;
  names.reserve(commands.size());
  for (const CLI::App* command : commands) names.push_back(command->get_name());
  return names;
}

}  // namespace

std::string bashCompletion(const CLI::App& app) {
  const std::vector<std::string> commands = namesOf(commandsOf(app));
  std::string script =
      "# Completion of zem for bash.\n"
      "_zem() {\n"
      "  local current=${COMP_WORDS[COMP_CWORD]} previous=${COMP_WORDS[COMP_CWORD - 1]}\n"
      "  local command= word options files values positional\n"
      "  for word in \"${COMP_WORDS[@]:1:COMP_CWORD-1}\"; do\n"
      "    case $word in\n"
      "      " +
      joined(commands, " | ") +
      ")\n"
      "        command=$word\n"
      "        break\n"
      "        ;;\n"
      "    esac\n"
      "  done\n"
      "  case $command in\n";
  for (const CLI::App* command : commandsOf(app)) script += bashCase(*command, command->get_name());
  script += bashCase(app, "*");
  script +=
      "  esac\n"
      "  COMPREPLY=()\n"
      "  if [[ \" $values \" == *\" $previous \"* ]]; then\n"
      "    return\n"
      "  elif [[ \" $files \" != *\" $previous \"* && $current == -* ]]; then\n"
      "    mapfile -t COMPREPLY < <(compgen -W \"$options\" -- \"$current\")\n"
      "  elif [[ -z $command ]]; then\n"
      "    mapfile -t COMPREPLY < <(compgen -W '" +
      joined(commands, " ") +
      "' -- \"$current\")\n"
      "  elif [[ -n $positional || \" $files \" == *\" $previous \"* ]]; then\n"
      "    compopt -o filenames 2>/dev/null\n"
      "    mapfile -t COMPREPLY < <(compgen -f -- \"$current\")\n"
      "  fi\n"
      "}\n"
      "complete -F _zem zem\n";
  return script;
}

std::string zshCompletion(const CLI::App& app) {
  std::string script =
      "#compdef zem\n"
      "# Completion of zem for zsh.\n"
      "_zem() {\n"
      "  local curcontext=$curcontext state line\n"
      "  local -a commands=(\n";
  for (const CLI::App* command : commandsOf(app)) {
    script +=
        "    '" + command->get_name() + ":" + zshDescription(command->get_description()) + "'\n";
  }
  script += "  )\n  _arguments -C" + zshArguments(app) +
            " \\\n            '1:command:->command' '*::argument:->arguments'\n"
            "  case $state in\n"
            "    command) _describe command commands ;;\n"
            "    arguments)\n"
            "      case $words[1] in\n";
  for (const CLI::App* command : commandsOf(app)) {
    script += "        " + command->get_name() + ")\n          _arguments" +
              zshArguments(*command) + "\n          ;;\n";
  }
  return script +
         "      esac\n"
         "      ;;\n"
         "  esac\n"
         "}\n"
         "_zem \"$@\"\n";
}

std::string fishCompletion(const CLI::App& app) {
  std::string script = "# Completion of zem for fish.\ncomplete -c zem -f\n";
  addFishOptions(script, app, "__fish_use_subcommand");
  for (const CLI::App* command : commandsOf(app)) {
    script += "complete -c zem -n __fish_use_subcommand -a " + command->get_name() + " -d " +
              fishQuoted(command->get_description()) + "\n";
  }
  for (const CLI::App* command : commandsOf(app)) {
    addFishOptions(script, *command, "__fish_seen_subcommand_from " + command->get_name());
  }
  return script;
}

}  // namespace zempages
