#import "MirelCTKTokenKeychainKey.h"

#import "CoreHolder.h"
#import "Initialisation.h"

#include "token/TokenKit.h"

@implementation MirelCTKTokenKeychainKey

- (instancetype)initWithCertificate:(SecCertificateRef)certificate
                           objectID:(TKTokenObjectID)objectID
                      certificateID:(id)certificateID
                 alwaysAuthenticate:(BOOL)alwaysAuthenticate {
  mirel::Initialisation<MirelCTKTokenKeychainKey> key{self};
  const auto superInit = [&] {
    return key.runSuper([&](MirelCTKTokenKeychainKey* allocated) {
      return [allocated mirel_superInitWithCertificate:certificate objectID:objectID];
    });
  };
  const bool made =
      mirel::MirelCTKTokenKeychainKey::initWithCertificate(superInit, *mirel::extensionServices().log);
  self = key.take();
  if (made) {
    _certificateID = mirel::ObjCHolder<NSObject>::retain(certificateID);
    _alwaysAuthenticate = alwaysAuthenticate;
  }
  return self;
}

- (id)mirel_superInitWithCertificate:(SecCertificateRef)certificate objectID:(TKTokenObjectID)objectID {
  return [super initWithCertificate:certificate objectID:objectID];
}

- (id)certificateID {
  return _certificateID.get();
}

- (BOOL)alwaysAuthenticate {
  return _alwaysAuthenticate;
}

@end
