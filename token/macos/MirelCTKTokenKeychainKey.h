#pragma once

#import <CryptoTokenKit/CryptoTokenKit.h>

#import "Holder.h"

/// A key item that knows its certificate item and whether every use needs a fresh PIN.
@interface MirelCTKTokenKeychainKey : TKTokenKeychainKey {
 @private
  mirel::ObjCHolder<NSObject> _certificateID;
  BOOL _alwaysAuthenticate;
}

@property(atomic, strong, readonly, nullable) id certificateID;
@property(atomic, readonly) BOOL alwaysAuthenticate;

- (nullable instancetype)initWithCertificate:(nullable SecCertificateRef)certificate
                                    objectID:(nonnull TKTokenObjectID)objectID
                               certificateID:(nullable id)certificateID
                          alwaysAuthenticate:(BOOL)alwaysAuthenticate;

@end
