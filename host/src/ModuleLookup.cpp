#include "host/ModuleLookup.h"

#include <sys/stat.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <optional>
#include <set>
#include <string_view>
#include <system_error>
#include <utility>

#include "ModuleTrust.h"
#include "NameList.h"
#include "host/NearestName.h"
#include "platform/Environment.h"
#include "platform/Log.h"

namespace mirel {
namespace {

namespace fs = std::filesystem;

constexpr std::string_view kEnding = ".module";
constexpr std::size_t kLargestConfiguration = 65536;  // bytes

bool isLetterOrDigit(char c) noexcept {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9');
}

/// Whether a module can be configured by that name.
bool isModuleName(std::string_view name) noexcept {
  return !name.empty() && isLetterOrDigit(name.front()) && std::all_of(name.begin(), name.end(), [](char c) {
    return isLetterOrDigit(c) || c == '_' || c == '-' || c == '.';
  });
}

/// The names of the modules that are configured.
std::set<std::string> configuredNames(const ModuleFolders& folders) {
  std::set<std::string> names;
  for (const std::string& folder : folders.configurations) {
    std::error_code error;
    for (fs::directory_iterator entry{folder, error}, end; !error && entry != end; entry.increment(error)) {
      std::string name = entry->path().filename().string();
      if (!name.ends_with(kEnding)) continue;
      name.resize(name.size() - kEnding.size());
      if (isModuleName(name)) names.insert(name);
    }
  }
  return names;
}

std::string_view trimmed(std::string_view text) noexcept {
  constexpr std::string_view kBlanks = " \t\r\f\v";
  const std::size_t first = text.find_first_not_of(kBlanks);
  if (first == std::string_view::npos) return {};
  return text.substr(first, text.find_last_not_of(kBlanks) - first + 1);
}

Failure refusal(const std::string& name, const std::string& why, const Advice& advice) {
  return {FailureKind::kModuleNotLoadable,
          "the PKCS #11 module \"" + printableLine(shortened(name)) + "\" is not loaded", why, advice};
}

/// The module's file as a configuration has it; empty when it names none.
Result<std::string> moduleIn(const std::string& configuration, const std::string& name) {
  const auto faulty = [&](const std::string& why) {
    return refusal(name, printableLine(configuration) + why, "mend that file, or give the module's path");
  };
  // Not opened for that: to open a pipe can wait for ever.
  struct stat status {};
  if (stat(configuration.c_str(), &status) != 0 || !S_ISREG(status.st_mode)) return faulty(" is no file");
  std::ifstream in{configuration, std::ios::binary};
  std::string text(kLargestConfiguration + 1, '\0');
  in.read(text.data(), static_cast<std::streamsize>(text.size()));
  if (in.bad() || !in.eof()) return faulty(in.bad() || !in.is_open() ? " cannot be read" : " is too long");
  text.resize(static_cast<std::size_t>(in.gcount()));

  std::string_view rest{text};
  for (int number = 1; !rest.empty(); ++number) {
    const std::string_view line = trimmed(rest.substr(0, rest.find('\n')));
    rest.remove_prefix(std::min(rest.find('\n'), rest.size() - 1) + 1);
    if (line.empty() || line.front() == '#') continue;
    const std::size_t colon = line.find(':');
    if (colon == std::string_view::npos || line.find('\0') != std::string_view::npos)
      return faulty(", line " + std::to_string(number) + ", is not of the form \"key: value\"");
    if (trimmed(line.substr(0, colon)) == "module") return std::string{trimmed(line.substr(colon + 1))};
  }
  return std::string{};
}

/// The same in the first folder whose configuration of that name names a file; nothing when none does.
Result<std::optional<std::string>> configuredFile(const std::string& name, const ModuleFolders& folders,
                                                  bool trusted) {
  if (!isModuleName(name)) return std::optional<std::string>{};
  for (const std::string& folder : folders.configurations) {
    const auto traced = traceFile((fs::path{folder} / name).concat(kEnding).string());
    if (!traced) continue;
    if (traced->exposure && !trusted)
      return refusal(name, *traced->exposure, UserStep::kRestrictOrTrustModule);
    auto file = moduleIn(traced->path, name);
    if (!file) return file.failure();
    if (!file->empty()) return std::optional{(fs::path{folders.modules} / *file).string()};
  }
  return std::optional<std::string>{};
}

Failure unknownModule(const std::string& name, const ModuleFolders& folders) {
  const std::set<std::string> names = configuredNames(folders);
  NameList list;
  for (const std::string& known : names) {
    if (list.takesMore()) list.add(shortened(known));
  }
  std::string why = "there is no such file in the working folder, and no module of that name is configured" +
                    suggestionFor(name, {names.begin(), names.end()});
  if (!names.empty()) why.append("; there are: ").append(list.textOf(names.size()));
  return refusal(name, why, "give the module's path, or a name that is configured");
}

/// Nothing where the name is neither that of a file nor of a module that is configured.
Result<std::optional<std::string>> knownFile(const std::string& name, const ModuleFolders& folders,
                                             bool trusted) {
  struct stat there {};
  const bool isThere = lstat(name.c_str(), &there) == 0;
  const bool isBareName = name.find('/') == std::string::npos;
  if (!isBareName || (isThere && !S_ISDIR(there.st_mode))) return std::optional{name};
  auto file = configuredFile(name, folders, trusted);
  if (file && !*file && isThere) return std::optional{name};
  return file;
}

}  // namespace

ModuleFolders systemModuleFolders(UserDirectory& user) {
  ModuleFolders folders{{MIREL_P11_ADMINISTRATOR, MIREL_P11_PACKAGES}, MIREL_P11_MODULES};
  std::string settings = callersVariable("XDG_CONFIG_HOME").value_or("");
  if (!settings.starts_with('/')) {
    const std::string home = user.homeOf(user.loginName());
    settings = home.empty() ? home : home + "/.config";
  }
  if (!settings.empty())
    folders.configurations.insert(folders.configurations.begin(), settings + "/pkcs11/modules");
  return folders;
}

Result<std::string> moduleFileFor(const std::string& name, const ModuleFolders& folders, bool trusted) {
  auto file = knownFile(name, folders, trusted);
  if (!file) return file.failure();
  if (!*file) return unknownModule(name, folders);
  return **file;
}

Result<std::string> moduleFileToExamine(const std::string& name, const ModuleFolders& folders, bool trusted) {
  auto file = knownFile(name, folders, trusted);
  if (!file) return file.failure();
  return file->value_or(name);
}

}  // namespace mirel
