#pragma once

#import <CryptoTokenKit/CryptoTokenKit.h>

#import "CoreHolder.h"
#import "CryptTKitSProviderBox.h"

namespace mirel {
class MirelSCTokenSession;
}

/// One client's session on a token; its own delegate.
@interface MirelSCTokenSession : TKSmartCardTokenSession <TKTokenSessionDelegate> {
 @private
  mirel::CoreHolder<mirel::MirelSCTokenSession> core_;
}

@property(atomic) NSInteger authState;
@property(atomic, strong, nullable) CryptTKitSProvider* sp;

- (nullable TKTokenKeychainKey*)authenticatedKeyForObjectID:(nonnull TKTokenObjectID)keyObjectID
                                                      error:(NSError* _Nullable* _Nullable)error;
- (nullable TKTokenKeychainKey*)generalAuthenticateWithData:(nullable NSData*)data
                                                    dataTag:(NSInteger)dataTag
                                                   usingKey:(nonnull TKTokenObjectID)keyObjectID
                                                      error:(NSError* _Nullable* _Nullable)error;

// For our other classes. The prefix keeps it apart from what the platform's class may have of its own.
- (const mirel::CoreHolder<mirel::MirelSCTokenSession>&)mirel_core;

@end

/// Writes the printable name of the algorithm to the process log.
void algorithmToPrint(TKTokenKeyAlgorithm* _Nonnull algorithm);
