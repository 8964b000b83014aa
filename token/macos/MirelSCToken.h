#pragma once

#import <CryptoTokenKit/CryptoTokenKit.h>

#import "CoreHolder.h"
#import "CryptTKitSProviderBox.h"
#import "MirelSCTokenDriver.h"

namespace mirel {
class MirelSCToken;
}

/// The token of one inserted card; its own delegate.
@interface MirelSCToken : TKSmartCardToken <TKTokenDelegate> {
 @private
  mirel::CoreHolder<mirel::MirelSCToken> core_;
}

@property(atomic, strong, nullable) CryptTKitSProvider* sp;

- (nullable instancetype)initWithSmartCard:(nonnull TKSmartCard*)smartCard
                                       AID:(nullable NSData*)AID
                        MirelSCTokenDriver:(nonnull MirelSCTokenDriver*)driver
                                     error:(NSError* _Nullable* _Nullable)error;

// For our other classes. The prefix keeps it apart from what the platform's class may have of its own.
- (const mirel::CoreHolder<mirel::MirelSCToken>&)mirel_core;

@end
