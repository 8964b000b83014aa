#pragma once

#import <CryptoTokenKit/CryptoTokenKit.h>

#include <memory>

namespace mirel {
class MirelCTKTokenKeychainKey;
struct Link;
}  // namespace mirel

/// A key item that knows its certificate item and whether every use needs a fresh PIN.
@interface MirelCTKTokenKeychainKey : TKTokenKeychainKey {
 @private
  std::shared_ptr<mirel::MirelCTKTokenKeychainKey> core_;
  std::shared_ptr<mirel::Link> link_;
}

@property(atomic, strong, readonly, nullable) id certificateID;
@property(atomic, readonly) BOOL alwaysAuthenticate;

- (nullable instancetype)initWithCertificate:(nullable SecCertificateRef)certificate
                                    objectID:(nonnull TKTokenObjectID)objectID
                               certificateID:(nullable id)certificateID
                          alwaysAuthenticate:(BOOL)alwaysAuthenticate;

// For the core's base object.
- (void)setLink:(const std::shared_ptr<mirel::Link>&)link;
- (void)adoptCore:(const std::shared_ptr<mirel::MirelCTKTokenKeychainKey>&)core;
- (std::shared_ptr<mirel::MirelCTKTokenKeychainKey>)core;

@end
