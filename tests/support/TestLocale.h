#pragma once

#include <filesystem>
#include <fstream>
#include <map>
#include <stdexcept>
#include <string>

namespace mirel::test {

/// A locale without a language of its own, for programs that a test starts; it lives as long as `folder`.
/// Newer C libraries follow LANGUAGE in no locale with the name of a C locale, and systems need not have
/// another one. Returns what the environment must hold. The C library never gives back what newlocale() reads
/// of LOCPATH, which is no leak of ours.
[[nodiscard]] inline std::map<std::string, std::string> testLocale(const std::filesystem::path& folder) {
  const std::string name = "test.UTF-8";
  for (const char* found : {"/usr/lib/locale/C.utf8", "/usr/lib/locale/C.UTF-8"}) {
    if (!std::filesystem::is_directory(found)) continue;
    if (!std::filesystem::exists(folder / name))
      std::filesystem::create_directory_symlink(found, folder / name);
    const std::string leaks = (folder / "leaks").string();
    std::ofstream{leaks} << "leak:argz_add_sep\n";
    return {{"LOCPATH", folder.string()},
            {"LC_ALL", name},
            {"LSAN_OPTIONS", "suppressions=" + leaks + ":print_suppressions=0"}};
  }
  throw std::runtime_error{"this system has no locale C.UTF-8"};
}

}  // namespace mirel::test
