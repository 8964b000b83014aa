#pragma once

#include <string>
#include <utility>
#include <vector>

#include "platform/UserDirectory.h"

namespace mirel::test {

/// A user database with one user, or with none when the login name is empty.
class FakeUserDirectory final : public UserDirectory {
 public:
  FakeUserDirectory(std::string loginName, std::string home)
      : loginName_{std::move(loginName)}, home_{std::move(home)} {}

  [[nodiscard]] std::string loginName() noexcept override { return loginName_; }
  [[nodiscard]] std::string homeOf(const std::string& loginName) noexcept override {
    askedFor_.push_back(loginName);
    return loginName == loginName_ ? home_ : std::string{};
  }

  /// From now on the user has that home.
  void moveTo(std::string home) { home_ = std::move(home); }

  /// The login names whose home was asked for.
  [[nodiscard]] const std::vector<std::string>& askedFor() const { return askedFor_; }

 private:
  std::string loginName_;
  std::string home_;
  std::vector<std::string> askedFor_;
};

}  // namespace mirel::test
