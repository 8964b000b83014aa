#pragma once

#include <filesystem>
#include <map>
#include <stdexcept>
#include <string>

namespace mirel::test {

/// A locale without a language of its own, for programs that a test starts; it lives as long as `folder`.
/// Newer C libraries follow LANGUAGE in no locale with the name of a C locale, and systems need not have
/// another one. Returns what the environment must hold.
[[nodiscard]] inline std::map<std::string, std::string> testLocale(const std::filesystem::path& folder) {
  const std::string name = "test.UTF-8";
  for (const char* found : {"/usr/lib/locale/C.utf8", "/usr/lib/locale/C.UTF-8"}) {
    if (!std::filesystem::is_directory(found)) continue;
    if (!std::filesystem::exists(folder / name))
      std::filesystem::create_directory_symlink(found, folder / name);
    return {{"LOCPATH", folder.string()}, {"LC_ALL", name}};
  }
  throw std::runtime_error{"this system has no locale C.UTF-8"};
}

}  // namespace mirel::test
