#include "UsageChecks.h"

#include <unistd.h>

#include <filesystem>
#include <optional>
#include <system_error>
#include <utility>
#include <vector>

#include "Commands.h"
#include "host/KeyChoice.h"

namespace mirel::cli {
namespace {

namespace fs = std::filesystem;

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

/// A recording must not take the place of any other file of the command line. `recording` is its option, and
/// its file.
Result<void> checkPlace(const NamedFile& recording, const std::vector<NamedFile>& others) {
  const auto& [option, file] = recording;
  for (const auto& [name, other] : others) {
    if (file && other && isSameFile(*file, *other))
      return wrongUsage(std::string{option}.append(" would overwrite the file of ").append(name));
  }
  return {};
}

/// A trace is begun before anything is read.
Result<void> checkRecordings(const Options& options) {
  std::vector<NamedFile> others(options.files.begin(), options.files.end());
  const char* module = options.moduleIsFromVariable ? "MIRELTOKEN_MODULE" : "--module";
  others.insert(others.end(), {{module, options.modulePath},
                               {"--in", options.in},
                               {"--out", options.out},
                               {"--pin-file", options.pinFile},
                               {"--replay", options.replay}});
  if (auto place = checkPlace({"record --out", options.recordTo}, others); !place) return place;
  others.emplace_back("record --out", options.recordTo);
  return checkPlace({"--trace", options.trace}, others);
}

}  // namespace

Result<void> checkUsage(const Options& options) {
  const struct {
    const char* name;
    const std::optional<std::string>& value;
  } texts[] = {{"--module", options.modulePath},
               {"--home", options.home},
               {"--key", options.key},
               {"--algorithm", options.algorithm},
               {"--in", options.in},
               {"--out", options.out},
               {"--pin-file", options.pinFile},
               {"--trace", options.trace},
               {"--replay", options.replay},
               {"--exec", options.exec}};
  for (const auto& [name, value] : texts) {
    if (value && value->empty()) return wrongUsage(std::string{name} + " is empty");
  }
  for (const auto& [name, value] : options.files) {
    if (value && value->empty()) return wrongUsage(name + " is empty");
  }
  if (!options.key && options.command->takes(CommandOption::Kind::kKey))
    return wrongUsage("--key is missing");
  if (auto key = checkKeyName(options.key.value_or("")); !key) return key;
  if (options.trace == "-") return wrongUsage("--trace needs a file, not standard output");
  if (auto recordings = checkRecordings(options); !recordings) return recordings;
  if (options.replay && options.modulePath) return wrongUsage("--replay excludes --module");
  if (options.replay && options.home) return wrongUsage("--replay excludes --home");
  if (!options.command->hasWorker && options.recordTo)
    return wrongUsage(std::string{options.command->name} +
                      " cannot be recorded, since each card has a process of its own");
  if (!options.command->hasWorker && (options.trace || options.replay || options.verbose > 1))
    return wrongUsage(std::string{options.command->name} + " takes neither --trace, --replay nor -vv");
  const bool readsInput = options.command->takes(CommandOption::Kind::kInput);
  if (options.pinFd == STDIN_FILENO && readsInput && options.in.value_or("-") == "-") {
    return wrongUsage("--pin-fd 0 and the data cannot both be standard input");
  }
  return {};
}

Result<void> checkRecord(const Options& options) {
  if (!options.recordTo) return wrongUsage("record needs --out");
  if (options.recordTo->empty()) return wrongUsage("--out is empty");
  // Standard output has what the command prints.
  if (*options.recordTo == "-") return wrongUsage("record --out needs a file, not standard output");
  return {};
}

Failure wrongUsage(const std::string& why) {
  return {FailureKind::kWrongUsage, "wrong usage", why, "see mireltoken --help"};
}

}  // namespace mirel::cli
