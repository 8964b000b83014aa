#include "host/Home.h"

#include <utility>

namespace mirel {
namespace {

constexpr const char* kModuleFolder = "Library/LunetLocalSignServer";
constexpr const char* kModuleName = "libTorvo_p11v1.dylib";

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

std::string moduleInHome(const std::string& home) { return home + "/" + kModuleFolder + "/" + kModuleName; }

}  // namespace mirel
