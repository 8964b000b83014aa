#pragma once

#include <memory>
#include <string>

namespace mirel {

/// Who runs the process, as the system's user database tells it. The environment is never asked.
class UserDirectory {
 public:
  UserDirectory() = default;
  UserDirectory(const UserDirectory&) = delete;
  UserDirectory& operator=(const UserDirectory&) = delete;
  virtual ~UserDirectory() = default;

  /// The login name of the effective user; empty when the database has no entry.
  [[nodiscard]] virtual std::string loginName() noexcept = 0;

  /// The home folder of the user with that login name, without a slash at the end ("/Users/" and the
  /// name on macOS); empty when there is no such user.
  [[nodiscard]] virtual std::string homeOf(const std::string& loginName) noexcept = 0;
};

/// The user database of the running system.
[[nodiscard]] std::shared_ptr<UserDirectory> systemUserDirectory();

}  // namespace mirel
