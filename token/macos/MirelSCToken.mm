#import "MirelSCToken.h"

#import "Bases.h"
#import "Convert.h"
#import "MirelSCTokenSession.h"
#import "TokenObjects.h"

#include "token/MirelSCToken.h"

@implementation MirelSCToken

- (void)setLink:(const std::shared_ptr<mirel::Link>&)link {
  link_ = link;
}

- (void)dealloc {
  if (link_) link_->object = nil;
  [super dealloc];
}

- (instancetype)initWithSmartCard:(TKSmartCard*)smartCard
                              AID:(NSData*)AID
               MirelSCTokenDriver:(MirelSCTokenDriver*)driver
                            error:(NSError**)error {
  const auto core = std::make_shared<mirel::MirelSCToken>(mirel::extensionServices(), mirel::baseOf(self));
  core_ = core;
  mirel::ErrorArgument argument{error};
  if (core->initWithSmartCard(mirel::wrapped(smartCard), mirel::bytesOf(AID), mirel::wrapped(driver),
                              argument.pointer())) {
    return static_cast<MirelSCToken*>(core->platformObject());
  }
  // A base initialiser that has failed has already let go of this object.
  if (core->platformObject()) [self release];
  return nil;
}

- (instancetype)baseInitWithSmartCard:(TKSmartCard*)smartCard
                                  AID:(NSData*)AID
                           instanceID:(NSString*)instanceID
                          tokenDriver:(TKSmartCardTokenDriver*)driver {
  self = [super initWithSmartCard:smartCard AID:AID instanceID:instanceID tokenDriver:driver];
  [self setDelegate:self];
  return self;
}

- (void)adoptCore:(const std::shared_ptr<mirel::MirelSCToken>&)core {
  core_ = core;
  link_->ownedByBase = false;
}

- (std::shared_ptr<mirel::MirelSCToken>)core {
  return core_;
}

- (CryptTKitSProvider*)sp {
  return core_ ? [CryptTKitSProvider boxOf:core_->sp()] : nil;
}

- (void)setSp:(CryptTKitSProvider*)sp {
  if (core_) core_->setSp([CryptTKitSProvider providerIn:sp]);
}

- (TKTokenSession*)token:(TKToken*)token createSessionWithError:(NSError**)error {
  mirel::ErrorArgument argument{error};
  return mirel::handedOut(core_->createSessionWithError(mirel::coreOf(token), argument.pointer()));
}

@end
