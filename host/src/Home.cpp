#include "host/Home.h"

#include <utility>

#include "bridge/CardRules.h"

namespace mirel {
namespace {

class UserWithHome final : public UserDirectory {
 public:
  UserWithHome(std::shared_ptr<UserDirectory> user, std::string home)
      : user_{std::move(user)}, home_{std::move(home)} {}
  std::string loginName() noexcept override { return user_->loginName(); }
  std::string homeOf(const std::string&) noexcept override { return home_; }

 private:
  std::shared_ptr<UserDirectory> user_;
  std::string home_;
};

}  // namespace

std::shared_ptr<UserDirectory> userWithHome(std::shared_ptr<UserDirectory> user, std::string home) {
  return std::make_shared<UserWithHome>(std::move(user), std::move(home));
}

std::string moduleInHome(const std::string& home) { return home + kModuleTail; }

}  // namespace mirel
