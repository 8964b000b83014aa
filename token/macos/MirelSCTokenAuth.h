#pragma once

#import <CryptoTokenKit/CryptoTokenKit.h>

#include <memory>

#import "Holder.h"

@class MirelSCTokenSession;

namespace mirel {
class MirelSCTokenAuth;
struct Link;
}  // namespace mirel

/// One entry of the PIN.
@interface MirelSCTokenAuth : TKTokenSmartCardPINAuthOperation {
 @private
  std::shared_ptr<mirel::MirelSCTokenAuth> core_;
  std::shared_ptr<mirel::Link> link_;
  mirel::ObjCHolder<MirelSCTokenSession> session_;
}

@property(atomic, strong, readonly, nullable) MirelSCTokenSession* session;

- (nullable instancetype)initWithSession:(nonnull MirelSCTokenSession*)session;

// For the core's base object. The prefix keeps them apart from what the platform's class may have of its own.
- (nullable instancetype)mirel_baseInit;
- (const std::shared_ptr<mirel::MirelSCTokenAuth>&)mirel_core;
- (void)mirel_setLink:(const std::shared_ptr<mirel::Link>&)link;

@end
