#include "Usage.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <string_view>
#include <vector>

#include "Options.h"
#include "host/NearestName.h"

namespace mirel::cli {
namespace {

constexpr std::size_t kTextColumn = 30;

using OptionList = std::vector<const CLI::Option*>;

OptionList optionsOf(const CLI::App& app) { return app.get_options(nullptr); }

bool takesValue(const CLI::Option& option) { return option.get_expected_max() > 0; }

/// "-v,--verbose"
std::string allNamesOf(const CLI::Option& option) {
  std::string names;
  for (const std::string& letter : option.get_snames()) names += (names.empty() ? "-" : ",-") + letter;
  for (const std::string& word : option.get_lnames()) names += (names.empty() ? "--" : ",--") + word;
  return names.empty() ? option.get_single_name() : names;
}

/// "--verbose"
std::string nameOf(const CLI::Option& option) {
  const auto& words = option.get_lnames();
  return words.empty() ? allNamesOf(option) : "--" + words.front();
}

/// The text stands on a line of its own where the subject leaves no room for it.
std::string helpLine(const std::string& subject, const std::string& text) {
  std::string line = "  " + subject;
  if (line.size() >= kTextColumn) line.append("\n").append(kTextColumn, ' ');
  if (line.size() < kTextColumn) line.append(kTextColumn - line.size(), ' ');
  return line.append(text).append("\n");
}

std::string optionLine(const CLI::Option& option) {
  std::string subject = allNamesOf(option);
  if (takesValue(option) && option.nonpositional()) subject.append(" ").append(option.get_type_name());
  const auto excluded = option.get_excludes();
  if (!excluded.empty()) subject.append(" Excludes:");
  for (const CLI::Option* other : excluded) subject.append(" ").append(nameOf(*other));
  return helpLine(subject, option.get_description());
}

const CLI::App& chosenIn(const CLI::App& app) {
  const auto chosen = app.get_subcommands();
  return chosen.empty() ? app : *chosen.back();
}

/// The options of the program and of the command that was chosen.
OptionList usableOptions(const CLI::App& app) {
  OptionList options = optionsOf(app);
  if (const CLI::App& command = chosenIn(app); &command != &app) {
    const OptionList more = optionsOf(command);
    options.insert(options.end(), more.begin(), more.end());
  }
  return options;
}

/// The option that the library's message is about: every version names it, whatever it says, and as its first
/// word without the dashes where a flag was given a value. Null when it names none.
const CLI::Option* optionNamedIn(std::string_view message, const OptionList& options) {
  for (const CLI::Option* option : options) {
    if (!option->nonpositional()) continue;
    const std::string name = nameOf(*option);
    if (!takesValue(*option) && message.starts_with(name.substr(name.find_first_not_of('-')) + " "))
      return option;
    const std::size_t found = message.find(name);
    if (found == std::string_view::npos) continue;
    const std::string_view rest = message.substr(found + name.size());
    const bool isLonger =
        !rest.empty() && (rest.front() == '-' || (rest.front() >= 'a' && rest.front() <= 'z'));
    if (!isLonger) return option;
  }
  return nullptr;
}

std::vector<const CLI::App*> commandsOf(const CLI::App& app) {
  return app.get_subcommands([](const CLI::App*) { return true; });
}

std::string commandLines(const CLI::App& app) {
  std::string lines;
  for (const CLI::App* command : commandsOf(app))
    lines += helpLine(command->get_name(), command->get_description());
  return lines;
}

/// What the user can have meant by a word that there is not.
std::vector<std::string> namesLike(std::string_view word, const CLI::App& app) {
  std::vector<std::string> names;
  if (word.starts_with('-')) {
    for (const CLI::Option* option : usableOptions(app)) names.push_back(nameOf(*option));
  } else {
    for (const CLI::App* command : commandsOf(app)) names.push_back(command->get_name());
  }
  return names;
}

/// " (did you mean …?)". A whole beginning such as "--pin" stands for the first option that goes on with a
/// dash; a name that is merely near means something else.
std::string suggestionIn(const CLI::App& app, const std::string& word) {
  const std::vector<std::string> names = namesLike(word, app);
  const auto begun = std::find_if(names.begin(), names.end(), [&](const std::string& name) {
    return word.starts_with("--") && name.starts_with(word + "-");
  });
  return begun == names.end() ? suggestionFor(word, names) : " (did you mean \"" + *begun + "\"?)";
}

/// The name in "--name=value" and "-nvalue": the value may be a PIN, so it is not repeated.
std::string optionNameIn(const std::string& word) {
  const auto end = std::find_if(word.begin(), word.end(), [](char c) {
    return c != '-' && (c < 'a' || c > 'z') && (c < 'A' || c > 'Z');
  });
  const std::string name{word.begin(), end};
  return name.starts_with("--") ? name : name.substr(0, 2);
}

/// The command that was chosen and that takes a PIN; null where there is none.
const CLI::App* pinCommandIn(const CLI::App& app) {
  const auto chosen = app.get_subcommands();
  const auto found = std::find_if(chosen.begin(), chosen.end(), [](const CLI::App* command) {
    return command->get_option_no_throw("--pin-file") != nullptr;
  });
  return found == chosen.end() ? nullptr : *found;
}

std::string unknownWord(const CLI::App& app, const std::string& unknown) {
  if (unknown.starts_with('-')) {
    const std::string name = optionNameIn(unknown);
    return "there is no \"" + name + "\"" + suggestionIn(app, name);
  }
  if (const CLI::App* command = pinCommandIn(app)) {
    return command->get_name() +
           " takes options only; the other word is not repeated, since it may be a PIN (for a PIN see "
           "--pin-file)";
  }
  return "there is no \"" + unknown + "\"" + suggestionIn(app, unknown);
}

/// The command that was chosen, if the option is its own.
std::string ownerOf(const CLI::Option& option, const CLI::App& app) {
  const OptionList common = optionsOf(app);
  const bool isCommon = std::find(common.begin(), common.end(), &option) != common.end();
  return isCommon ? "" : chosenIn(app).get_name();
}

Refusal exclusion(const CLI::App& app, const OptionList& options) {
  for (const CLI::Option* option : options) {
    if (option->count() == 0) continue;
    for (const CLI::Option* other : option->get_excludes()) {
      if (other->count() > 0) return {nameOf(*option) + " excludes " + nameOf(*other), ownerOf(*option, app)};
    }
  }
  return {"there are options that exclude each other", {}};
}

std::string helpTextFor(const CLI::App& app, const CLI::App& shown) {
  const bool isCommand = &shown != &app;
  std::string text = shown.get_description() + "\nUsage: " + app.get_name();
  if (isCommand) text.append(" ").append(shown.get_name());
  text.append(" [OPTIONS]").append(isCommand ? "" : " COMMAND");
  if (shown.get_prefix_command()) text += " COMMAND...";
  for (const CLI::Option* option : optionsOf(shown)) {
    if (option->get_positional()) text.append(" [").append(option->get_name(true)).append("]");
  }
  text += "\n\nOptions:\n";
  for (const CLI::Option* option : optionsOf(shown)) {
    if (!option->get_description().empty()) text += optionLine(*option);
  }
  if (isCommand)
    return text.append(
        "\nOptions of all commands, such as --module, --reader and --json: mireltoken --help\n");

  text += "\nCommands:\n" + commandLines(app);
  return text.append("\n").append(app.get_footer()).append("\n");
}

std::string refusedValueText(const CLI::Option& option, const CLI::ParseError& error) {
  const std::string name = nameOf(option);
  if (!takesValue(option)) return name + " takes no such value";
  if (option.count() > 1) return name + " is given more than once";
  if (dynamic_cast<const CLI::ArgumentMismatch*>(&error))
    return name + " needs a value (" + option.get_type_name() + ")";
  if (const auto range = rangeOf(name); range && !option.results().empty())
    return "the value \"" + option.results().front() + "\" of " + name + " is not " + *range;
  // Not repeated: it may be a PIN.
  return "the value of " + name + " is no " + option.get_type_name();
}

}  // namespace

std::string helpText(const CLI::App& app) { return helpTextFor(app, chosenIn(app)); }

std::optional<std::string> helpTextOn(const CLI::App& app, const std::string& command) {
  if (command.empty()) return helpTextFor(app, app);
  for (const CLI::App* known : commandsOf(app)) {
    if (known->get_name() == command) return helpTextFor(app, *known);
  }
  return std::nullopt;
}

std::string shortHelpText(const CLI::App& app) {
  return "Usage: " + app.get_name() + " [OPTIONS] COMMAND\n\n" + commandLines(app) +
         "\nSee all options and exit codes with: mireltoken --help\n"
         "See those of a command with: mireltoken help COMMAND\n";
}

Refusal refusalOf(const CLI::App& app, const CLI::ParseError& error) {
  const std::vector<std::string> unknown = app.remaining();
  const CLI::App& chosen = chosenIn(app);
  if (!unknown.empty()) return {unknownWord(app, unknown.front()), &chosen == &app ? "" : chosen.get_name()};
  if (dynamic_cast<const CLI::RequiredError*>(&error)) return {"a command is required", {}};
  const OptionList options = usableOptions(app);
  if (dynamic_cast<const CLI::ExcludesError*>(&error)) return exclusion(app, options);

  const CLI::Option* option = optionNamedIn(error.what(), options);
  if (!option) return {"the arguments cannot be understood", {}};
  return {refusedValueText(*option, error), ownerOf(*option, app)};
}

}  // namespace mirel::cli
