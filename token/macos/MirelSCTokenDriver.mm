#import "MirelSCTokenDriver.h"

#import "Convert.h"
#import "Initialisation.h"
#import "MirelSCToken.h"

#include "token/MirelSCTokenDriver.h"

@implementation MirelSCTokenDriver

- (instancetype)init {
  mirel::Initialisation<MirelSCTokenDriver> driver{self};
  if (driver.runSuper([](MirelSCTokenDriver* allocated) { return [allocated mirel_superInit]; })) {
    driver.becomeOwnDelegate();
  }
  self = driver.take();
  return self;
}

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
