#include "UsageChecks.h"

#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <iterator>
#include <optional>
#include <string_view>
#include <system_error>
#include <utility>
#include <vector>

#include "Commands.h"
#include "Files.h"
#include "host/Home.h"
#include "host/KeyChoice.h"
#include "host/ModuleLookup.h"

namespace mirel::cli {
namespace {

namespace fs = std::filesystem;

/// By the name of the command.
constexpr std::pair<std::string_view, const char*> kHelps[] = {
#define MIREL_HELP(name) {#name, "see mireltoken " #name " --help"},
    MIREL_COMMANDS(MIREL_HELP) MIREL_HELP(record) MIREL_HELP(help)
#undef MIREL_HELP
};

using NamedFile = std::pair<std::string, std::optional<std::string>>;

/// Also one with two hard links, and one that is not there yet.
bool isSameFile(const std::string& one, const std::string& other) {
  std::error_code error;
  if (fs::equivalent(one, other, error)) return true;
  const auto wholeName = [](const std::string& name) {
    std::error_code unknown;
    const fs::path whole = fs::weakly_canonical(fs::absolute(name, unknown), unknown);
    return unknown ? fs::path{name} : whole;
  };
  return wholeName(one) == wholeName(other);
}

/// A file that is written must not take the place of another one. `written`: its option, and its file.
Result<void> checkPlace(const NamedFile& written, const std::vector<NamedFile>& others) {
  const auto& [option, file] = written;
  if (file == "-") return {};
  for (const auto& [name, other] : others) {
    if (file && other && isSameFile(*file, *other))
      return wrongUsage(std::string{option}.append(" would overwrite the file of ").append(name));
  }
  return {};
}

/// The module's file, as far as it can be found; that it cannot is told when it is to be loaded.
NamedFile moduleFileOf(const Options& options) {
  if (options.replay) return {};
  const auto user = userOf(options, systemUserDirectory());
  if (options.modulePath) {
    const auto file = moduleFileToExamine(*options.modulePath, systemModuleFolders(*user), true);
    return {options.moduleIsFromVariable ? "MIRELTOKEN_MODULE" : "--module",
            file ? std::optional{*file} : std::nullopt};
  }
  const std::string home = user->homeOf(user->loginName());
  return {"the module in the home folder", home.empty() ? std::nullopt : std::optional{moduleInHome(home)}};
}

/// No file may be one that only comes to be opened, and none that is written may take the place of another
/// one of the command line, or of the module.
Result<void> checkPlaces(const Options& options) {
  std::vector<NamedFile> others{{"--pin-file", options.pinFile}, {"--replay", options.replay}};
  std::vector<NamedFile> written{{"--out", options.out}};
  std::vector<NamedFile> inputs{{"--in", options.in}};
  for (const auto& file : options.files) (file.first.starts_with("--") ? written : inputs).push_back(file);
  const NamedFile recording{"record --out", options.recordTo};
  const NamedFile trace{"--trace", options.trace};
  for (const auto& files : {others, inputs}) {
    for (const auto& [name, file] : files) {
      if (auto open = checkOpenFile(file, FileUse::kReading); !open) return open;
    }
  }
  bool anyIsWritten = false;
  for (const auto& files : {written, std::vector{recording, trace}}) {
    for (const auto& [name, file] : files) {
      if (auto open = checkOpenFile(file, FileUse::kWriting); !open) return open;
      anyIsWritten = anyIsWritten || (file && file != "-");
    }
  }
  if (!anyIsWritten) return {};
  others.push_back(moduleFileOf(options));
  for (const NamedFile& file : written) {
    if (auto place = checkPlace(file, others); !place) return place;
    others.push_back(file);
  }
  // A result may replace the input, which has been read by then; a trace is begun before.
  others.insert(others.end(), inputs.begin(), inputs.end());
  if (auto place = checkPlace(recording, others); !place) return place;
  others.push_back(recording);
  return checkPlace(trace, others);
}

}  // namespace

std::shared_ptr<UserDirectory> userOf(const Options& options, std::shared_ptr<UserDirectory> user) {
  if (!options.home) return user;
  std::error_code error;  // where the working folder was removed: then nothing is found there
  const fs::path whole = fs::absolute(*options.home, error);
  std::string home = error ? *options.home : whole.string();
  while (home.size() > 1 && home.back() == '/') home.pop_back();
  return userWithHome(std::move(user), home);
}

Result<void> checkUsage(const Options& options) {
  const std::string command{options.command->name};
  const struct {
    const char* name;
    const std::optional<std::string>& value;
    std::string command;
  } texts[] = {{"--module", options.modulePath, {}},
               {"--home", options.home, {}},
               {"--trace", options.trace, {}},
               {"--replay", options.replay, {}},
               {"--key", options.key, command},
               {"--algorithm", options.algorithm, command},
               {"--in", options.in, command},
               {"--out", options.out, command},
               {"--pin-file", options.pinFile, command},
               {"--exec", options.exec, command}};
  for (const auto& [name, value, owner] : texts) {
    if (value && value->empty()) return wrongUsage(std::string{name} + " is empty", owner);
  }
  for (const auto& [name, value] : options.files) {
    if (value && value->empty()) return wrongUsage(name + " is empty", command);
  }
  if (!options.key && options.command->takes(CommandOption::Kind::kKey))
    return wrongUsage("--key is missing", command);
  if (auto key = checkKeyName(options.key.value_or("")); !key) return key;
  if (options.trace == "-") return wrongUsage("--trace needs a file, not standard output");
  if (auto places = checkPlaces(options); !places) return places;
  if (options.replay && options.modulePath) return wrongUsage("--replay excludes --module");
  if (options.replay && options.home) return wrongUsage("--replay excludes --home");
  if (!options.command->hasWorker && options.recordTo)
    return wrongUsage(command + " cannot be recorded, since each card has a process of its own", "record");
  if (!options.command->hasWorker && (options.trace || options.replay || options.verbose > 1))
    return wrongUsage(command + " takes neither --trace, --replay nor -vv");
  const bool readsInput = options.command->takes(CommandOption::Kind::kInput);
  if (options.pinFd == STDIN_FILENO && readsInput && options.in.value_or("-") == "-") {
    return wrongUsage("--pin-fd 0 and the data cannot both be standard input", command);
  }
  return {};
}

Result<void> checkRecord(const Options& options) {
  if (!options.recordTo) return wrongUsage("record needs --out", "record");
  if (options.recordTo->empty()) return wrongUsage("--out is empty", "record");
  // Standard output has what the command prints.
  if (*options.recordTo == "-") return wrongUsage("record --out needs a file, not standard output", "record");
  return {};
}

Failure wrongUsage(const std::string& why, std::string_view command) {
  const auto found = std::find_if(std::begin(kHelps), std::end(kHelps),
                                  [&](const auto& help) { return help.first == command; });
  const char* advice = found == std::end(kHelps) ? "see mireltoken --help" : found->second;
  return {FailureKind::kWrongUsage, "wrong usage", why, advice};
}

}  // namespace mirel::cli
