#import "MirelCTKTokenKeychainKey.h"

#import "Bases.h"
#import "Certificate.h"
#import "Convert.h"

#include "token/MirelCTKTokenKeychainKey.h"

@implementation MirelCTKTokenKeychainKey

- (void)dealloc {
  if (link_) link_->object = nil;
  [super dealloc];
}

- (instancetype)initWithCertificate:(SecCertificateRef)certificate
                           objectID:(TKTokenObjectID)objectID
                      certificateID:(id)certificateID
                 alwaysAuthenticate:(BOOL)alwaysAuthenticate {
  const auto core = [self mirel_core];
  (void)core->initWithCertificate(mirel::wrapped(certificate), mirel::textOfObject(objectID),
                                  mirel::textOfObject(certificateID), alwaysAuthenticate);
  auto* made = static_cast<MirelCTKTokenKeychainKey*>(core->platformObject());
  if (made) made->_certificateID = mirel::ObjCHolder<NSObject>::retain(certificateID);
  return made;
}

- (instancetype)mirel_baseInitWithCertificate:(SecCertificateRef)certificate
                                     objectID:(TKTokenObjectID)objectID {
  const auto core = core_;
  const auto link = link_;
  self = [super initWithCertificate:certificate objectID:objectID];
  if (self) {
    core_ = core;
    link_ = link;
  }
  return self;
}

- (const std::shared_ptr<mirel::MirelCTKTokenKeychainKey>&)mirel_core {
  if (!core_) core_ = mirel::newCore<mirel::MirelCTKTokenKeychainKey>(self);
  return core_;
}

- (void)mirel_setLink:(const std::shared_ptr<mirel::Link>&)link {
  link_ = link;
}

- (id)certificateID {
  return _certificateID.get();
}

- (BOOL)alwaysAuthenticate {
  return [self mirel_core]->alwaysAuthenticate();
}

@end
