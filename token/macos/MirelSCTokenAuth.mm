#import "MirelSCTokenAuth.h"

#import "Errors.h"
#import "Initialisation.h"
#import "MirelSCTokenSession.h"
#import "Ports.h"

#include "token/MirelSCTokenAuth.h"

@implementation MirelSCTokenAuth

- (instancetype)initWithSession:(MirelSCTokenSession*)session {
  mirel::Initialisation<MirelSCTokenAuth> operation{self};
  const auto core = core_;  // the base initialiser may give another object
  mirel::PINRequestPort request{session};
  const auto superInit = [&] {
    const bool made =
        operation.runSuper([](MirelSCTokenAuth* allocated) { return [allocated mirel_superInit]; });
    request.setOperation(operation.get());
    return made;
  };
  const bool made =
      core->initWithSession(session ? [session mirel_core].shared() : nullptr, request, superInit);
  self = operation.take();
  if (made) {
    core_ = core;
    session_ = mirel::ObjCHolder<MirelSCTokenSession>::retain(session);
  }
  return self;
}

- (id)mirel_superInit {
  return [super init];
}

- (MirelSCTokenSession*)session {
  return session_.get();
}

- (BOOL)finishWithError:(NSError**)error {
  mirel::PINRequestPort request{session_.get()};
  request.setOperation(self);
  mirel::ErrorArgument argument{error};
  return core_->finishWithError(request, argument.pointer());
}

@end
