// SPDX-License-Identifier: Apache-2.0
#include <algorithm>
#include <vector>

#include "pages.h"

namespace zempages {
namespace {

// The name of such a value is FILE, or INPUT for a file or a folder.
bool takesFile(const OptionFacts& option) {
  return option.valueName == "FILE" || option.valueName == "INPUT";
}

std::string joined(const std::vector<std::string>& words, const char* separator) {
  std::string text;
  for (const std::string& word : words) text += (text.empty() ? "" : separator) + word;
  return text;
}

bool hasPositional(const CommandFacts& command) {
  return std::any_of(command.options.begin(), command.options.end(),
                     [](const OptionFacts& option) { return !option.positional.empty(); });
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

Words wordsOf(const CommandFacts& command) {
  Words words;
  for (const OptionFacts& option : command.options) {
    for (const std::string& name : option.names) {
      words.options.push_back(name);
      if (takesFile(option)) {
        words.files.push_back(name);
      } else if (option.takesValue) {
        words.values.push_back(name);
      }
    }
  }
  return words;
}

std::vector<std::string> namesOf(const std::vector<CommandFacts>& commands) {
  std::vector<std::string> names;
  names.reserve(commands.size());
  for (const CommandFacts& command : commands) names.push_back(command.name);
  return names;
}

std::string bashCase(const CommandFacts& command, const std::string& pattern) {
  const Words words = wordsOf(command);
  return "    " + pattern + ")\n      options='" + joined(words.options, " ") + "'\n      files='" +
         joined(words.files, " ") + "'\n      values='" + joined(words.values, " ") +
         "'\n      commands='" + joined(namesOf(command.commands), " ") +
         "'\n      positional=" + (hasPositional(command) ? "yes" : "") + "\n      ;;\n";
}

// The words in front of a command's last one, and that one, as the script looks for them.
std::string bashStep(const std::string& name) {
  const size_t space = name.rfind(' ');
  return space == std::string::npos ? "' " + name + "'" : "'" + name + "'";
}

std::string zshDescription(const std::string& text) { return quotable(guarded(text, "[]:\\")); }

// An argument of zsh's _arguments.
std::string zshOption(const OptionFacts& option) {
  std::string value;
  if (option.takesValue) {
    value = ":" + zshDescription(option.valueName) + ":" + (takesFile(option) ? "_files" : "");
  }
  const std::vector<std::string>& names = option.names;
  const std::string description = "[" + zshDescription(option.description) + "]";
  if (names.size() == 1) return "'" + names[0] + description + value + "'";
  return "'(" + joined(names, " ") + ")'{" + joined(names, ",") + "}'" + description + value + "'";
}

std::string zshArguments(const CommandFacts& command) {
  std::string text;
  for (const OptionFacts& option : command.options) {
    if (!option.names.empty()) text += " \\\n            " + zshOption(option);
  }
  if (hasPositional(command)) text += " \\\n            '*:file:_files'";
  return text;
}

std::string fishQuoted(const std::string& text) { return "'" + guarded(text, "\\'") + "'"; }

void addFishOptions(std::string& script, const CommandFacts& command,
                    const std::string& condition) {
  for (const OptionFacts& option : command.options) {
    if (option.names.empty()) continue;
    script += "complete -c zem -n '" + condition + "'";
    for (const std::string& name : option.names) {
      script += name.starts_with("--") ? " -l " + name.substr(2) : " -s " + name.substr(1);
    }
    if (takesFile(option)) {
      script += " -r -F";
    } else if (option.takesValue) {
      script += " -x";
    }
    script += " -d " + fishQuoted(option.description) + "\n";
  }
  if (hasPositional(command)) script += "complete -c zem -n '" + condition + "' -F\n";
}

// When the options of a command are offered: not for a command inside another that has its name.
std::string fishCondition(const CommandFacts& program, const CommandFacts& command) {
  std::string condition = "__fish_seen_subcommand_from " + command.name;
  for (const CommandFacts& other : program.commands) {
    if (other.commands.empty() || other.name == command.name) continue;
    condition += "; and not __fish_seen_subcommand_from " + other.name;
  }
  return condition;
}

void addFishCommands(std::string& script, const CommandFacts& program,
                     const std::string& condition) {
  for (const CommandFacts& command : program.commands) {
    script += "complete -c zem -n '" + condition + "' -a " + command.name + " -d " +
              fishQuoted(command.description) + "\n";
  }
}

void addFishSubcommands(std::string& script, const CommandFacts& command) {
  const std::string outer = "__fish_seen_subcommand_from " + command.name;
  const std::string names = joined(namesOf(command.commands), " ");
  addFishCommands(script, command, outer + "; and not __fish_seen_subcommand_from " + names);
  for (const CommandFacts& inner : command.commands) {
    addFishOptions(script, inner, outer + "; and __fish_seen_subcommand_from " + inner.name);
  }
}

// What zsh does with the words behind a command that has subcommands. `margin` is in front of
// each line.
std::string zshChoice(const CommandFacts& program, const std::string& margin) {
  std::string script = margin + "commands=(\n";
  for (const CommandFacts& command : program.commands) {
    script += margin + "  '" + command.name + ":" + zshDescription(command.description) + "'\n";
  }
  script += margin + ")\n" + margin + "_arguments -C" + zshArguments(program) +
            " \\\n            '1:command:->command' '*::argument:->arguments'\n" + margin +
            "case $state in\n" + margin + "  command) _describe command commands ;;\n" + margin +
            "  arguments)\n" + margin + "    case $words[1] in\n";
  for (const CommandFacts& command : program.commands) {
    script += margin + "      " + command.name + ")\n";
    script += command.commands.empty()
                  ? margin + "        _arguments" + zshArguments(command) + "\n"
                  : zshChoice(command, margin + "        ");
    script += margin + "        ;;\n";
  }
  return script + margin + "    esac\n" + margin + "    ;;\n" + margin + "esac\n";
}

}  // namespace

std::string bashCompletion(const CommandFacts& program) {
  const std::vector<CommandFacts> commands = allCommands(program);
  std::vector<std::string> steps;
  steps.reserve(commands.size());
  for (const CommandFacts& command : commands) steps.push_back(bashStep(command.name));
  std::string script =
      "# Completion of zem for bash.\n"
      "_zem() {\n"
      "  local current=${COMP_WORDS[COMP_CWORD]} previous=${COMP_WORDS[COMP_CWORD - 1]}\n"
      "  local command= word options files values commands positional\n"
      "  for word in \"${COMP_WORDS[@]:1:COMP_CWORD-1}\"; do\n"
      "    case \"$command $word\" in\n"
      "      " +
      joined(steps, " | ") +
      ")\n"
      "        command=\"${command:+$command }$word\"\n"
      "        ;;\n"
      "    esac\n"
      "  done\n"
      "  case $command in\n";
  for (const CommandFacts& command : commands) {
    script += bashCase(command, "'" + command.name + "'");
  }
  script += bashCase(program, "*");
  script +=
      "  esac\n"
      "  COMPREPLY=()\n"
      "  if [[ \" $values \" == *\" $previous \"* ]]; then\n"
      "    return\n"
      "  elif [[ \" $files \" != *\" $previous \"* && $current == -* ]]; then\n"
      "    mapfile -t COMPREPLY < <(compgen -W \"$options\" -- \"$current\")\n"
      "  elif [[ -n $commands ]]; then\n"
      "    mapfile -t COMPREPLY < <(compgen -W \"$commands\" -- \"$current\")\n"
      "  elif [[ -n $positional || \" $files \" == *\" $previous \"* ]]; then\n"
      "    compopt -o filenames 2>/dev/null\n"
      "    mapfile -t COMPREPLY < <(compgen -f -- \"$current\")\n"
      "  fi\n"
      "}\n"
      "complete -F _zem zem\n";
  return script;
}

std::string zshCompletion(const CommandFacts& program) {
  return "#compdef zem\n"
         "# Completion of zem for zsh.\n"
         "_zem() {\n"
         "  local curcontext=$curcontext state line\n"
         "  local -a commands\n" +
         zshChoice(program, "  ") +
         "}\n"
         "_zem \"$@\"\n";
}

std::string fishCompletion(const CommandFacts& program) {
  std::string script = "# Completion of zem for fish.\ncomplete -c zem -f\n";
  addFishOptions(script, program, "__fish_use_subcommand");
  addFishCommands(script, program, "__fish_use_subcommand");
  for (const CommandFacts& command : program.commands) {
    if (command.commands.empty()) {
      addFishOptions(script, command, fishCondition(program, command));
    } else {
      addFishSubcommands(script, command);
    }
  }
  return script;
}

}  // namespace zempages
