#pragma once

#import <CryptoTokenKit/CryptoTokenKit.h>

#include <memory>

#import "Holder.h"

namespace mirel {
class MirelCTKTokenKeychainKey;
struct Link;
}  // namespace mirel

/// A key item that knows its certificate item and whether every use needs a fresh PIN.
@interface MirelCTKTokenKeychainKey : TKTokenKeychainKey {
 @private
  std::shared_ptr<mirel::MirelCTKTokenKeychainKey> core_;
  std::shared_ptr<mirel::Link> link_;
  mirel::ObjCHolder<NSObject> _certificateID;
}

@property(atomic, strong, readonly, nullable) id certificateID;
@property(atomic, readonly) BOOL alwaysAuthenticate;

- (nullable instancetype)initWithCertificate:(nullable SecCertificateRef)certificate
                                    objectID:(nonnull TKTokenObjectID)objectID
                               certificateID:(nullable id)certificateID
                          alwaysAuthenticate:(BOOL)alwaysAuthenticate;

// For the core's base object. The prefix keeps them apart from what the platform's class may have of its own.
- (nullable instancetype)mirel_baseInitWithCertificate:(nullable SecCertificateRef)certificate
                                              objectID:(nonnull TKTokenObjectID)objectID;
- (const std::shared_ptr<mirel::MirelCTKTokenKeychainKey>&)mirel_core;
- (void)mirel_setLink:(const std::shared_ptr<mirel::Link>&)link;

@end
