#pragma once

#import <CryptoTokenKit/CryptoTokenKit.h>

#include <memory>

#import "CryptTKitSProviderBox.h"
#import "MirelSCTokenDriver.h"

namespace mirel {
class MirelSCToken;
struct Link;
}  // namespace mirel

/// The token of one inserted card.
@interface MirelSCToken : TKSmartCardToken <TKTokenDelegate> {
 @private
  std::shared_ptr<mirel::MirelSCToken> core_;
  std::shared_ptr<mirel::Link> link_;
}

@property(atomic, strong, nullable) CryptTKitSProvider* sp;

- (nullable instancetype)initWithSmartCard:(nonnull TKSmartCard*)smartCard
                                       AID:(nullable NSData*)AID
                        MirelSCTokenDriver:(nonnull MirelSCTokenDriver*)driver
                                     error:(NSError* _Nullable* _Nullable)error;

// For the core's base object. The prefix keeps them apart from what the platform's class may have of its own.
- (nullable instancetype)mirel_baseInitWithSmartCard:(nonnull TKSmartCard*)smartCard
                                                 AID:(nullable NSData*)AID
                                          instanceID:(nonnull NSString*)instanceID
                                         tokenDriver:(nonnull TKSmartCardTokenDriver*)driver;
- (const std::shared_ptr<mirel::MirelSCToken>&)mirel_core;
- (void)mirel_setLink:(const std::shared_ptr<mirel::Link>&)link;

@end
