#include "platform/DistributedNotificationCenter.h"

#import <Foundation/Foundation.h>

#include "Convert.h"
#include "Guard.h"

namespace mirel {
namespace {

class FoundationNotificationCenter final : public DistributedNotificationCenter {
 public:
  void postNotificationName(const Text& name, const Text& object, bool deliverImmediately) noexcept override {
    @autoreleasepool {
      guarded("a notification is not sent", [&] {
        [[NSDistributedNotificationCenter defaultCenter] postNotificationName:stringOf(name)
                                                                       object:stringOf(object)
                                                                     userInfo:nil
                                                           deliverImmediately:deliverImmediately ? YES : NO];
      });
    }
  }
};

}  // namespace

std::shared_ptr<DistributedNotificationCenter> systemDistributedNotificationCenter() {
  return std::make_shared<FoundationNotificationCenter>();
}

}  // namespace mirel
