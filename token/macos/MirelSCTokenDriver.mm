#import "MirelSCTokenDriver.h"

#import "Convert.h"
#import "Initialisation.h"
#import "MirelSCToken.h"

#include "token/MirelSCTokenDriver.h"

@implementation MirelSCTokenDriver

// The initialiser of the base runs in a method of its own, where an exception is caught.
#pragma clang diagnostic push
#pragma clang diagnostic ignored "-Wobjc-designated-initializers"
- (instancetype)init {
  mirel::Initialisation<MirelSCTokenDriver> driver{self};
  if (driver.runSuper([](MirelSCTokenDriver* allocated) { return [allocated mirel_superInit]; })) {
    driver.becomeOwnDelegate();
  }
  self = driver.take();
  return self;
}
#pragma clang diagnostic pop

- (id)mirel_superInit {
  return [super init];
}

- (TKSmartCardToken*)tokenDriver:(TKSmartCardTokenDriver*)driver
         createTokenForSmartCard:(TKSmartCard*)smartCard
                             AID:(NSData*)AID
                           error:(NSError**)error {
  mirel::ObjCHolder<MirelSCToken> token;
  core_->createTokenForSmartCard([&] {
    token = mirel::ObjCHolder<MirelSCToken>::adopt([[MirelSCToken alloc] initWithSmartCard:smartCard
                                                                                       AID:AID
                                                                        MirelSCTokenDriver:self
                                                                                     error:error]);
    return mirel::descriptionOf(token.get());
  });
  return token.autoreleased();
}

@end
