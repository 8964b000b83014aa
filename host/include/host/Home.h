#pragma once

#include <memory>
#include <string>

#include "host/Failure.h"
#include "platform/UserDirectory.h"

namespace mirel {

/// The same user, with `home` (an absolute path) for every home folder.
[[nodiscard]] std::shared_ptr<UserDirectory> userWithHome(std::shared_ptr<UserDirectory> user,
                                                          std::string home);

/// The path of the card maker's module in that home folder.
[[nodiscard]] std::string moduleInHome(const std::string& home);

/// A home folder for one run, in the temporary folder and readable for this user alone, in which the
/// place of the module is a link to a module somewhere else. It is removed with this object.
class PrivateHome {
 public:
  /// `modulePath`: any path of an existing file.
  [[nodiscard]] static Outcome<std::unique_ptr<PrivateHome>> create(const std::string& modulePath);

  PrivateHome(const PrivateHome&) = delete;
  PrivateHome& operator=(const PrivateHome&) = delete;
  ~PrivateHome();

  /// Has it removed too when the process is ended by SIGHUP, SIGINT or SIGTERM. For programs, which own
  /// their signal handlers; one home for each process.
  void removeOnSignals() const noexcept;

  /// An absolute path.
  [[nodiscard]] const std::string& path() const noexcept { return path_; }

 private:
  explicit PrivateHome(std::string path) : path_{std::move(path)} {}

  std::string path_;
};

}  // namespace mirel
