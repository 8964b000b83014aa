#pragma once

#import <CryptoTokenKit/CryptoTokenKit.h>

#import "CoreHolder.h"
#import "Holder.h"

namespace mirel {
class MirelSCTokenAuth;
}

@class MirelSCTokenSession;

/// One entry of the PIN.
@interface MirelSCTokenAuth : TKTokenSmartCardPINAuthOperation {
 @private
  mirel::CoreHolder<mirel::MirelSCTokenAuth> core_;
  mirel::ObjCHolder<MirelSCTokenSession> session_;
}

@property(atomic, strong, readonly, nullable) MirelSCTokenSession* session;

- (nullable instancetype)initWithSession:(nonnull MirelSCTokenSession*)session;

@end
