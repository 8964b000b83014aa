#import "MirelSCTokenAuth.h"

#import "Bases.h"
#import "Convert.h"
#import "MirelSCTokenSession.h"
#import "TokenObjects.h"

#include "token/MirelSCTokenAuth.h"
#include "token/MirelSCTokenSession.h"

@implementation MirelSCTokenAuth

- (void)setLink:(const std::shared_ptr<mirel::Link>&)link {
  link_ = link;
}

- (void)dealloc {
  if (link_) link_->object = nil;
  [super dealloc];
}

- (instancetype)initWithSession:(MirelSCTokenSession*)session {
  const auto core =
      std::make_shared<mirel::MirelSCTokenAuth>(mirel::extensionServices(), mirel::baseOf(self));
  core_ = core;
  if (core->initWithSession([session core])) {
    session_ = mirel::ObjCHolder<MirelSCTokenSession>::retain(session);
    return static_cast<MirelSCTokenAuth*>(core->platformObject());
  }
  return nil;  // the base initialiser has already let go of this object
}

- (instancetype)baseInit {
  return [super init];
}

- (void)adoptCore:(const std::shared_ptr<mirel::MirelSCTokenAuth>&)core {
  core_ = core;
  session_ = mirel::ObjCHolder<MirelSCTokenSession>::retain(mirel::objectBehind(core->session()));
  link_->ownedByBase = false;
}

- (MirelSCTokenSession*)session {
  return session_.get();
}

- (BOOL)finishWithError:(NSError**)error {
  mirel::ErrorArgument argument{error};
  return core_->finishWithError(argument.pointer());
}

@end
