#import "MirelSCTokenAuth.h"

#import "Bases.h"
#import "Convert.h"
#import "Errors.h"
#import "MirelSCTokenSession.h"
#import "TokenObjects.h"

#include "token/MirelSCTokenAuth.h"
#include "token/MirelSCTokenSession.h"

@implementation MirelSCTokenAuth

- (void)dealloc {
  if (link_) link_->object = nil;
  [super dealloc];
}

- (instancetype)initWithSession:(MirelSCTokenSession*)session {
  const auto core = [self mirel_core];
  (void)core->initWithSession(session ? [session mirel_core] : nullptr);
  auto* made = static_cast<MirelSCTokenAuth*>(core->platformObject());
  if (made) made->session_ = mirel::ObjCHolder<MirelSCTokenSession>::retain(session);
  return made;
}

- (instancetype)mirel_baseInit {
  const auto core = core_;
  const auto link = link_;
  self = [super init];
  if (self) {
    core_ = core;
    link_ = link;
  }
  return self;
}

- (const std::shared_ptr<mirel::MirelSCTokenAuth>&)mirel_core {
  if (!core_) core_ = mirel::newCore<mirel::MirelSCTokenAuth>(self);
  return core_;
}

- (void)mirel_setLink:(const std::shared_ptr<mirel::Link>&)link {
  link_ = link;
}

- (MirelSCTokenSession*)session {
  return session_.get();
}

- (BOOL)finishWithError:(NSError**)error {
  mirel::ErrorArgument argument{error};
  return [self mirel_core]->finishWithError(argument.pointer());
}

@end
