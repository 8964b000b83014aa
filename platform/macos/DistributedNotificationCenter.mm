#include "platform/DistributedNotificationCenter.h"

#import <Foundation/Foundation.h>

#include "Convert.h"

namespace mirel {
namespace {

class FoundationNotificationCenter final : public DistributedNotificationCenter {
 public:
  void postNotificationName(const Text& name, const Text& object, bool deliverImmediately) noexcept override {
    @autoreleasepool {
      [[NSDistributedNotificationCenter defaultCenter] postNotificationName:stringOf(name)
                                                                     object:stringOf(object)
                                                                   userInfo:nil
                                                         deliverImmediately:deliverImmediately ? YES : NO];
    }
  }
};

}  // namespace

std::shared_ptr<DistributedNotificationCenter> systemDistributedNotificationCenter() {
  return std::make_shared<FoundationNotificationCenter>();
}

}  // namespace mirel
