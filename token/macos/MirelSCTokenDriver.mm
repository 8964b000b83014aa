#import "MirelSCTokenDriver.h"

#import "Bases.h"
#import "Convert.h"
#import "Errors.h"
#import "TokenObjects.h"

#include "token/MirelSCTokenDriver.h"

@implementation MirelSCTokenDriver

- (instancetype)init {
  self = [super init];
  if (self) {
    (void)[self core];  // before several threads can ask for it
    [self setDelegate:self];
  }
  return self;
}

- (const std::shared_ptr<mirel::MirelSCTokenDriver>&)core {
  if (!core_) core_ = mirel::newDriverCore();
  return core_;
}

- (TKSmartCardToken*)tokenDriver:(TKSmartCardTokenDriver*)driver
         createTokenForSmartCard:(TKSmartCard*)smartCard
                             AID:(NSData*)AID
                           error:(NSError**)error {
  mirel::ErrorArgument argument{error};
  return mirel::objectBehind([self core]->createTokenForSmartCard(
      mirel::wrapped(self), mirel::wrapped(smartCard), mirel::bytesOf(AID), argument.pointer()));
}

@end
