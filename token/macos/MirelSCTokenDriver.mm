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
    core_ = std::make_shared<mirel::MirelSCTokenDriver>(mirel::extensionServices());
    [self setDelegate:self];
  }
  return self;
}

- (TKSmartCardToken*)tokenDriver:(TKSmartCardTokenDriver*)driver
         createTokenForSmartCard:(TKSmartCard*)smartCard
                             AID:(NSData*)AID
                           error:(NSError**)error {
  mirel::ErrorArgument argument{error};
  return mirel::objectBehind(core_->createTokenForSmartCard(mirel::wrapped(self), mirel::wrapped(smartCard),
                                                            mirel::bytesOf(AID), argument.pointer()));
}

@end
