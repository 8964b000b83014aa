#pragma once

#include <pwd.h>

#include <cstddef>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

namespace mirel {

/// What is wanted of an entry of the password database.
struct PasswordEntry {
  std::string name;
  std::string home;  ///< as it stands there
};

/// A look-up in the form of getpwnam_r(3), the key already bound: fills the entry, using the buffer
/// for its texts, and returns 0 or an errno value; the last argument becomes null for "no entry".
using PasswordQuery =
    std::function<int(passwd* entry, char* buffer, std::size_t bufferSize, passwd** outEntry)>;

/// Runs the query with a buffer that grows until the entry fits (1 MiB at most). Nothing when there
/// is no entry or the database cannot be read.
[[nodiscard]] std::optional<PasswordEntry> readPasswordEntry(const PasswordQuery& query);

/// The home folder in a form that a path beginning with a slash can be put behind: without slashes at
/// the end. The root folder becomes "/.", because nothing but an empty text would be left of it, and
/// that means "no home". A home that is not an absolute path becomes empty: a path built on it would
/// lead into whatever folder the process works in.
[[nodiscard]] std::string usableHome(std::string_view home);

}  // namespace mirel
