#pragma once

#include <grp.h>
#include <pwd.h>

#include <optional>
#include <string>

namespace mirel {

/// A file, and who may change what stands under its name.
struct TracedFile {
  std::string path;                       ///< absolute and without links
  std::optional<std::string> exposure{};  ///< how somebody else may change it, for the user; nothing: nobody
};

/// Follows `path` from the root folder to the file as the system does, and looks at every folder and link on
/// the way: those of the path and those to which its links lead. Nothing when there is no such file.
///
/// Somebody else may change the file when it, or something on the way, belongs neither to this user nor to
/// root, or when its mode lets others write to it, or a group with somebody else in it (see `isHarmless`). A
/// folder with the sticky bit, such as /tmp, may have any mode: only the owner of an entry can replace it
/// there, and the entry that is taken must belong to this user or root, as everywhere.
///
/// Looks at modes and owners alone. Access control lists, and what the modes of a mounted file system do not
/// tell, are not looked at.
[[nodiscard]] std::optional<TracedFile> traceFile(const std::string& path);

/// Whether what that group may do is no more than this user and root may do: the group of root and the
/// private one that many systems give each user, with nobody else in them, and that of the administrators of
/// macOS, who may act as root. Whose primary group it is does not show here.
[[nodiscard]] bool isHarmless(const group& entry, const passwd& user) noexcept;

}  // namespace mirel
