#import "MirelCTKTokenKeychainKey.h"

#import "Bases.h"
#import "Certificate.h"
#import "Convert.h"

#include "token/MirelCTKTokenKeychainKey.h"

@implementation MirelCTKTokenKeychainKey

- (void)setLink:(const std::shared_ptr<mirel::Link>&)link {
  link_ = link;
}

- (void)dealloc {
  if (link_) link_->object = nil;
  [super dealloc];
}

- (instancetype)initWithCertificate:(SecCertificateRef)certificate
                           objectID:(TKTokenObjectID)objectID
                      certificateID:(id)certificateID
                 alwaysAuthenticate:(BOOL)alwaysAuthenticate {
  const auto core =
      std::make_shared<mirel::MirelCTKTokenKeychainKey>(mirel::extensionServices(), mirel::baseOf(self));
  core_ = core;
  if (core->initWithCertificate(mirel::wrapped(certificate), mirel::textOfObject(objectID),
                                mirel::textOfObject(certificateID), alwaysAuthenticate)) {
    return static_cast<MirelCTKTokenKeychainKey*>(core->platformObject());
  }
  return nil;  // the base initialiser has already let go of this object
}

- (void)adoptCore:(const std::shared_ptr<mirel::MirelCTKTokenKeychainKey>&)core {
  core_ = core;
  link_->ownedByBase = false;
}

- (std::shared_ptr<mirel::MirelCTKTokenKeychainKey>)core {
  return core_;
}

- (id)certificateID {
  return core_ ? mirel::stringOf(core_->certificateID()) : nil;
}

- (BOOL)alwaysAuthenticate {
  return core_ && core_->alwaysAuthenticate();
}

@end
