#pragma once

#import <CryptoTokenKit/CryptoTokenKit.h>

#include <memory>

#import "CryptTKitSProviderBox.h"

@class MirelSCToken;

namespace mirel {
class MirelSCTokenSession;
struct Link;
}  // namespace mirel

/// One client's session on a token; its own delegate.
@interface MirelSCTokenSession : TKSmartCardTokenSession <TKTokenSessionDelegate> {
 @private
  std::shared_ptr<mirel::MirelSCTokenSession> core_;
  std::shared_ptr<mirel::Link> link_;
}

@property(atomic) NSInteger authState;
@property(atomic, strong, nullable) CryptTKitSProvider* sp;

- (nullable TKTokenKeychainKey*)authenticatedKeyForObjectID:(nonnull TKTokenObjectID)keyObjectID
                                                      error:(NSError* _Nullable* _Nullable)error;
- (nullable TKTokenKeychainKey*)generalAuthenticateWithData:(nullable NSData*)data
                                                    dataTag:(NSInteger)dataTag
                                                   usingKey:(nonnull TKTokenObjectID)keyObjectID
                                                      error:(NSError* _Nullable* _Nullable)error;

// For the core's base object. The prefix keeps them apart from what the platform's class may have of its own.
- (nullable instancetype)mirel_baseInitWithToken:(nonnull TKToken*)token;
- (const std::shared_ptr<mirel::MirelSCTokenSession>&)mirel_core;
- (void)mirel_setLink:(const std::shared_ptr<mirel::Link>&)link;

@end

/// Writes the printable name of the algorithm to the process log.
void algorithmToPrint(TKTokenKeyAlgorithm* _Nonnull algorithm);
