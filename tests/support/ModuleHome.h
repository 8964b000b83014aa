#pragma once

#include <filesystem>
#include <string>

#include "support/TemporaryFolder.h"

namespace mirel::test {

/// A private home folder in which the card software's place for its module holds a link to a file of
/// the test's choice. Each library needs a home of its own: the loader does not look at a path again that
/// it has opened before.
class ModuleHome {
 public:
  /// An empty path: a home without a module.
  explicit ModuleHome(const std::filesystem::path& module);

  /// The home, without a slash at the end.
  [[nodiscard]] std::string home() const { return folder_.path().string(); }
  /// The full path that the system opens.
  [[nodiscard]] std::string modulePath() const;

 private:
  TemporaryFolder folder_;
};

}  // namespace mirel::test
