#import "MirelSCToken.h"

#import "Bases.h"
#import "Convert.h"
#import "Errors.h"
#import "Holder.h"
#import "MirelSCTokenSession.h"
#import "TokenObjects.h"

#include "token/MirelSCToken.h"

@implementation MirelSCToken

- (void)dealloc {
  if (link_) link_->object = nil;
  [super dealloc];
}

- (instancetype)initWithSmartCard:(TKSmartCard*)smartCard
                              AID:(NSData*)AID
               MirelSCTokenDriver:(MirelSCTokenDriver*)driver
                            error:(NSError**)error {
  const auto core = [self mirel_core];
  mirel::ErrorArgument argument{error};
  const bool made = core->initWithSmartCard(mirel::wrapped(smartCard), mirel::bytesOf(AID),
                                            mirel::wrapped(driver), argument.pointer()) != nullptr;
  // After a base initialiser that has failed there is no object any more.
  auto token = mirel::ObjCHolder<MirelSCToken>::adopt(static_cast<MirelSCToken*>(core->platformObject()));
  return made ? token.take() : nil;
}

- (instancetype)mirel_baseInitWithSmartCard:(TKSmartCard*)smartCard
                                        AID:(NSData*)AID
                                 instanceID:(NSString*)instanceID
                                tokenDriver:(TKSmartCardTokenDriver*)driver {
  const auto core = core_;
  const auto link = link_;
  self = [super initWithSmartCard:smartCard AID:AID instanceID:instanceID tokenDriver:driver];
  if (self) {
    core_ = core;
    link_ = link;
    [self setDelegate:self];
  }
  return self;
}

- (const std::shared_ptr<mirel::MirelSCToken>&)mirel_core {
  if (!core_) core_ = mirel::newCore<mirel::MirelSCToken>(self);
  return core_;
}

- (void)mirel_setLink:(const std::shared_ptr<mirel::Link>&)link {
  link_ = link;
}

- (CryptTKitSProvider*)sp {
  return [CryptTKitSProvider boxOf:[self mirel_core]->sp()];
}

- (void)setSp:(CryptTKitSProvider*)sp {
  [self mirel_core]->setSp([CryptTKitSProvider providerIn:sp]);
}

- (TKTokenSession*)token:(TKToken*)token createSessionWithError:(NSError**)error {
  // Oddity: what stands behind the pointer is read and logged, and never written. A caller without automatic
  // reference counting may have left a variable there that was never set: then this reads what is no object.
  // Cocoa's own rule is that an error is only looked at after a failure, so such a caller does nothing wrong.
  mirel::ErrorArgument argument{error, mirel::ErrorArgument::Before::kShown};
  return mirel::objectBehind(
      [self mirel_core]->createSessionWithError(mirel::wrapped(token), argument.pointer()));
}

@end
