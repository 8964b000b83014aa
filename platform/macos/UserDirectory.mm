#include "platform/UserDirectory.h"

#import <Foundation/Foundation.h>

#include "Convert.h"
#include "Guard.h"

namespace mirel {
namespace {

class FoundationUserDirectory final : public UserDirectory {
 public:
  std::string loginName() noexcept override {
    @autoreleasepool {
      return textOf(guarded("the user's name is not known", [] { return NSUserName(); })).toUtf8();
    }
  }
  /// In a sandbox the home folder that the system tells is the container, so the path is built.
  std::string homeOf(const std::string& loginName) noexcept override {
    return loginName.empty() ? std::string{} : "/Users/" + loginName;
  }
};

}  // namespace

std::shared_ptr<UserDirectory> systemUserDirectory() { return std::make_shared<FoundationUserDirectory>(); }

}  // namespace mirel
