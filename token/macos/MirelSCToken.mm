#import "MirelSCToken.h"

#import "Convert.h"
#import "Errors.h"
#import "Initialisation.h"
#import "MirelSCTokenSession.h"
#import "Ports.h"

#include "token/MirelSCToken.h"

@implementation MirelSCToken

- (instancetype)initWithSmartCard:(TKSmartCard*)smartCard
                              AID:(NSData*)AID
               MirelSCTokenDriver:(MirelSCTokenDriver*)driver
                            error:(NSError**)error {
  mirel::Initialisation<MirelSCToken> token{self};
  const auto core = core_;  // the base initialiser may give another object
  mirel::ContentsPort contents;
  const auto superInit = [&](const mirel::Text& instanceID) {
    const bool made = token.runSuper([&](MirelSCToken* allocated) {
      return [allocated mirel_superInitWithSmartCard:smartCard
                                                 AID:AID
                                          instanceID:mirel::stringOf(instanceID)
                                         tokenDriver:driver];
    });
    if (!made) return false;
    token.get()->core_ = core;
    token.becomeOwnDelegate();
    contents.setToken(token.get());
    return true;
  };
  mirel::ErrorArgument argument{error};
  const bool made =
      core->initWithSmartCard(mirel::CardPort{smartCard}, contents, superInit, argument.pointer());
  self = made ? token.take() : nil;
  return self;
}

- (id)mirel_superInitWithSmartCard:(TKSmartCard*)smartCard
                               AID:(NSData*)AID
                        instanceID:(NSString*)instanceID
                       tokenDriver:(TKSmartCardTokenDriver*)driver {
  return [super initWithSmartCard:smartCard AID:AID instanceID:instanceID tokenDriver:driver];
}

- (const mirel::CoreHolder<mirel::MirelSCToken>&)mirel_core {
  return core_;
}

- (CryptTKitSProvider*)sp {
  return [CryptTKitSProvider boxOf:core_->sp()];
}

- (void)setSp:(CryptTKitSProvider*)sp {
  core_->setSp([CryptTKitSProvider providerIn:sp]);
}

- (TKTokenSession*)token:(TKToken*)token createSessionWithError:(NSError**)error {
  // Oddity: what stands behind the pointer is read and logged, and never written. A caller without automatic
  // reference counting may have left a variable there that was never set: then this reads what is no object.
  // Cocoa's own rule is that an error is only looked at after a failure, so such a caller does nothing wrong.
  mirel::ErrorArgument argument{error, mirel::ErrorArgument::Before::kShown};
  mirel::ObjCHolder<MirelSCTokenSession> session;
  core_->createSessionWithError(mirel::descriptionOf(token), argument.pointer(), [&] {
    session = mirel::ObjCHolder<MirelSCTokenSession>::adopt([[MirelSCTokenSession alloc] initWithToken:self]);
    return mirel::descriptionOf(session.get());
  });
  return session.autoreleased();
}

@end
