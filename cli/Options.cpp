#include "Options.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <system_error>
#include <utility>

#include "Commands.h"
#include "host/Home.h"

namespace mirel::cli {
namespace {

constexpr int kLongestTimeout = 86400;  // seconds
constexpr std::pair<std::string_view, int> kLeastSeconds[] = {{"--timeout", 0}, {"--for", 1}};
constexpr const char* kRecord = "record";
constexpr const char* kHelp = "help";

constexpr const char* kExamples =
    "Examples:\n"
    "  mireltoken readers\n"
    "  mireltoken items --reader \"Virtual PCD 00 00\" --json\n"
    "  mireltoken --module /usr/lib/softhsm/libsofthsm2.so items -v\n"
    "  mireltoken sign --key 01 --in letter.txt --out letter.sig\n"
    "  mireltoken sign --key \"pkcs11:object=Signature\" --algorithm PS384 --in letter.txt --out letter.sig\n"
    "  mireltoken decrypt --key Encryption --in secret.bin --out secret.txt --pin-file ~/.card-pin\n"
    "  mireltoken algorithms --key 01\n"
    "  mireltoken algorithms --all\n"
    "  mireltoken certificate --key 01 --out letter.pem\n"
    "  mireltoken login --pin-fd 3 3< ~/.card-pin\n"
    "  mireltoken exchange --key 03 --in their-point.bin\n"
    "  mireltoken doctor --login\n"
    "  mireltoken conformance --login --junit rules.xml\n"
    "  mireltoken watch --for 2 --exec 'echo \"$EVENT of $SERIAL in $READER\"'\n"
    "  mireltoken explain MT-R02\n"
    "  mireltoken record --out bug.jsonl items\n"
    "  mireltoken --replay bug.jsonl items\n"
    "  mireltoken items --trace calls.jsonl\n"
    "  mireltoken trace show calls.jsonl --failed\n"
    "\n"
    "A key is named by its ID in hexadecimal digits or its label, as `items` shows them, by a PKCS #11 URI\n"
    "(RFC 7512) such as \"pkcs11:id=%01\", or by #N for the N-th key. The PIN is asked for at the terminal;\n"
    "it is never an argument or an environment variable.\n"
    "The PKCS #11 module is ";

constexpr const char* kRemarks =
    " in the user's home.\n"
    "MIRELTOKEN_MODULE and MIRELTOKEN_READER in the environment stand for --module and --reader.\n"
    "Texts of the card are shown as UTF-8, with \\xNN for what is no UTF-8 or not printable; JSON keeps\n"
    "every byte as one character.\n"
    "\n"
    "Exit codes:\n"
    "  0  success\n"
    "  1  internal error, or no process can be started\n"
    "  2  wrong usage\n"
    "  3  the module cannot be loaded\n"
    "  4  the module does not initialise or does not list its slots\n"
    "  5  no such reader, or no card in it\n"
    "  6  the card's objects cannot be listed\n"
    "  7  the PIN is wrong\n"
    "  8  the PIN is locked\n"
    "  9  no PIN was given\n"
    "  10  the key does not do that, or not with that algorithm\n"
    "  11  there is no signature, or it does not verify\n"
    "  12  there is no such key\n"
    "  13  the card did not do what it was asked\n"
    "  14  a file cannot be read or written\n"
    "  15  another card is in the reader\n"
    "  16  the card or its service went away\n"
    "  17  a try is left for the user: the PIN was not sent\n"
    "  18  this PIN, or this card's, cannot be entered here\n"
    "  19  the examination found what deserves a warning\n"
    "  20  the examination found what does not work\n"
    "  21  the module crashed\n"
    "  22  the module ended the program\n"
    "  23  a call of the module did not return in time\n"
    "  24  the recording has no answer to a call";

std::string footer() { return kExamples + moduleInHome("").substr(1) + kRemarks; }

/// What of the command line's language is to be declared.
class Wanted {
 public:
  explicit Wanted(std::optional<std::span<char* const>> words) : words_{words} {}

  [[nodiscard]] bool command(std::string_view name) const {
    return !words_ || std::find(words_->begin(), words_->end(), name) != words_->end();
  }
  /// `name`: with its dashes; one without stands for any word.
  [[nodiscard]] bool option(std::string_view name) const {
    const auto isNamed = [name](std::string_view word) { return word.starts_with(name); };
    return !words_ || !name.starts_with('-') || std::any_of(words_->begin(), words_->end(), isNamed);
  }

 private:
  std::optional<std::span<char* const>> words_;
};

/// Of an option with a number of seconds.
std::optional<int> leastSecondsOf(std::string_view option) {
  for (const auto& [name, least] : kLeastSeconds) {
    if (name == option) return least;
  }
  return std::nullopt;
}

/// Declares what is wanted of the options of a program or a command.
class Declarer {
 public:
  Declarer(CLI::App& app, const Wanted& wanted) : app_{app}, wanted_{wanted} {}

  /// With a value. Null where it is not wanted.
  template <typename Value>
  CLI::Option* option(const char* name, Value& value, const char* help, const char* type) const {
    if (!wanted_.option(name)) return nullptr;
    return app_.add_option(name, value, help)->type_name(type);
  }

  template <typename Value>
  void seconds(const char* name, Value& value, const char* help) const {
    if (auto* declared = option(name, value, help, "N"))
      declared->check(CLI::Range(leastSecondsOf(name).value_or(0), kLongestTimeout).description(""));
  }

  void flag(const char* name, bool& value, const char* help) const {
    if (wanted_.option(name)) app_.add_flag(name, value, help);
  }

 private:
  CLI::App& app_;
  const Wanted& wanted_;
};

/// Options that may be null.
void exclude(CLI::Option* one, CLI::Option* other) {
  if (one && other) one->excludes(other);
}

void declarePinOptions(const Declarer& declarer, Options& options) {
  auto* file = declarer.option("--pin-file", options.pinFile,
                               "Read the PIN from this file, which nobody else may read", "FILE");
  exclude(file,
          declarer.option("--pin-fd", options.pinFd, "Read the PIN from this open file descriptor", "N"));
  declarer.flag("--last-try", options.lastTry,
                "Send a PIN from a file or descriptor also when that may lock the card");
}

void declareOption(CLI::App& app, const Wanted& wanted, Options& options, const CommandOption& option) {
  const Declarer declarer{app, wanted};
  switch (option.kind) {
    case CommandOption::Kind::kKey:
      declarer.option("--key", options.key, "The key: its ID, its label, a PKCS #11 URI, or #N", "ID");
      break;
    case CommandOption::Kind::kOptionalKey: declarer.option("--key", options.key, option.help, "ID"); break;
    case CommandOption::Kind::kAlgorithm:
      declarer.option("--algorithm", options.algorithm, option.help, "NAME");
      break;
    case CommandOption::Kind::kInput: declarer.option("--in", options.in, option.help, "FILE"); break;
    case CommandOption::Kind::kOutput: declarer.option("--out", options.out, option.help, "FILE"); break;
    case CommandOption::Kind::kPin: declarePinOptions(declarer, options); break;
    case CommandOption::Kind::kFile:
      declarer.option(option.flag, options.files[option.flag], option.help, "FILE");
      break;
    case CommandOption::Kind::kExec: declarer.option("--exec", options.exec, option.help, "COMMAND"); break;
    case CommandOption::Kind::kSeconds: declarer.seconds("--for", options.seconds, option.help); break;
    case CommandOption::Kind::kWord: app.add_option(option.flag, options.word, option.help); break;
    case CommandOption::Kind::kFlag:
      declarer.flag(option.flag, options.flags[option.flag], option.help);
      break;
  }
}

void declareCommand(CLI::App& app, const Wanted& wanted, Options& options, const Command& command) {
  CLI::App* declared = app.add_subcommand(command.name, command.help);
  declared->fallthrough();
  declared->footer("");  // not the whole program's
  declared->callback([&options, &command] { options.command = &command; });
  for (const CommandOption& option : command.options) declareOption(*declared, wanted, options, option);
}

/// No command of the list: it stands before one.
void declareRecord(CLI::App& app, Options& options) {
  CLI::App* declared =
      app.add_subcommand(kRecord, "Carry out a command, and record what the module was asked and answered");
  declared->footer("");
  declared->prefix_command();
  declared->add_option("--out", options.recordTo, "Where the recording goes")->type_name("FILE");
  declared->add_flag("--anonymous", options.anonymous,
                     "Put pseudonyms of the same length for names, labels and serial numbers");
}

/// No command of the list: it needs no module.
void declareHelp(CLI::App& app, Options& options) {
  CLI::App* declared = app.add_subcommand(kHelp, "Print the help of the program, or of a command");
  declared->fallthrough();
  declared->footer("");
  declared->add_option("COMMAND", options.helpOn, "The command")->type_name("");
}

}  // namespace

void declareOptions(CLI::App& app, Options& options, std::optional<std::span<char* const>> words,
                    bool recorded) {
  const Wanted wanted{words};
  const Declarer declarer{app, wanted};
  app.name("mireltoken");
  app.require_subcommand(recorded ? 0 : 1, 1);  // the caller has words for "none to record"
  // A flag is given or not: "--verbose=loud" is no number, nor "--json=false" no JSON. Only "=true" is still
  // taken, which says nothing else.
  app.option_defaults()->disable_flag_override();
  if (!words) {
    app.description("Shows what a smart card would publish in the keychain, and why not; uses its keys.");
    app.footer(footer());
    app.set_version_flag("--version", "", "Print the version, with those of the libraries, and exit");
    app.set_help_flag("-h,--help", "Print this help and exit");
  }

  auto* module = declarer.option(
      "--module", options.modulePath,
      "Use this PKCS #11 module (a file, or a name that p11-kit knows), for this run only", "PATH");
  auto* home = declarer.option("--home", options.home, "Look for the module in this home folder", "DIR");
  exclude(module, home);
  declarer.flag("--trust-module", options.trustModule,
                "Load the module although somebody else may change its file");
  declarer.option("--reader", options.reader,
                  "The reader: its name, or a beginning that fits no other (default: the first with an "
                  "initialised card)",
                  "NAME");
  declarer.seconds(
      "--timeout", options.timeout,
      "Give a call of the module this many seconds, 0 for any time (default: 30; at most 86400)");
  declarer.flag("--json", options.json, "Print JSON for programs");
  declarer.option("--trace", options.trace, "Write each call of the module to this file, while it is made",
                  "FILE");
  auto* replay = declarer.option("--replay", options.replay,
                                 "Let this recording answer in place of a module and a card", "FILE");
  exclude(replay, module);
  exclude(replay, home);
  // Added, since a command behind "record" may have some of its own.
  const auto count = [&options](std::int64_t times) { options.verbose += static_cast<int>(times); };
  if (wanted.option("-v") || wanted.option("--verbose"))
    app.add_flag_function("-v,--verbose", count,
                          "Print the log lines on standard error; twice (-vv): the calls of the module, too");

  for (const Command* command : allCommands()) {
    // What is recorded can be shown.
    if (command == &traceCommand && !recorded && wanted.command(kRecord)) declareRecord(app, options);
    if (wanted.command(command->name)) declareCommand(app, wanted, options, *command);
  }
  if (wanted.command(kHelp)) declareHelp(app, options);
}

void makeNamesAbsolute(Options& ioOptions) {
  const auto makeAbsolute = [](std::optional<std::string>& ioName) {
    if (!ioName || ioName == "-") return;
    std::error_code error;
    const std::filesystem::path whole = std::filesystem::absolute(*ioName, error);
    if (!error) ioName = whole.string();
  };
  for (auto* name : {&ioOptions.in, &ioOptions.out, &ioOptions.pinFile, &ioOptions.trace, &ioOptions.replay,
                     &ioOptions.recordTo})
    makeAbsolute(*name);
  for (auto& [option, name] : ioOptions.files) makeAbsolute(name);
}

std::optional<std::string> rangeOf(std::string_view option) {
  const auto least = leastSecondsOf(option);
  if (!least) return std::nullopt;
  return "a whole number from " + std::to_string(*least) + " to " + std::to_string(kLongestTimeout);
}

std::optional<std::vector<std::string>> commandToRecord(const CLI::App& app) {
  for (const CLI::App* command : app.get_subcommands()) {
    if (command->get_name() == kRecord) return command->remaining();
  }
  return std::nullopt;
}

std::vector<std::string> wordsOf(std::span<const CLI::App* const> apps, const Options& options) {
  std::vector<std::string> words;
  if (options.command) words.emplace_back(options.command->name);
  const auto add = [&words](const CLI::App& declared) {
    for (const CLI::Option* option : declared.get_options(nullptr)) {
      if (option->count() == 0) continue;
      const std::string type = option->get_type_name();
      const bool isFile = type == "FILE" || type == "PATH" || type == "DIR";
      if (option->nonpositional()) words.push_back("--" + option->get_lnames().front());
      if (option->get_expected_max() == 0) continue;
      words.push_back(isFile ? type : option->results().front());
    }
  };
  for (const CLI::App* app : apps) {
    if (!app) continue;
    for (const CLI::App* command : app->get_subcommands()) {
      if (command->get_name() != kRecord) add(*command);
    }
    add(*app);
  }
  return words;
}

}  // namespace mirel::cli
