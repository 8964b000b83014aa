#import "RaisingCall.h"

#import <Foundation/Foundation.h>
#import <objc/runtime.h>

#include <cstdio>
#include <cstdlib>
#include <string_view>

namespace mirel::test {

struct RaisingCall::State {
  std::string call;
  std::size_t count = 0;
  Class type = Nil;
  Method method = nullptr;
  IMP before = nullptr;
  /// Made beforehand: any method may be the one that raises.
  NSException* exception = nil;

  void raise() {
    ++count;
    [exception raise];
  }

  void use(IMP implementation) const {
    (void)method_setImplementation(method, implementation);
    // The runtime leaves the old one in the tables of derived classes, until the class gets a new method.
    static int numNames = 0;
    const std::string name = "mirel_unused" + std::to_string(numNames++);
    (void)class_addMethod(type, sel_registerName(name.c_str()), implementation, "v@:");
  }

  static id raiseInMethod(id object, SEL selector) {
    if (std::string_view{sel_getName(selector)}.starts_with("init")) [object release];
    current->raise();
    return nil;
  }
};

RaisingCall::State* RaisingCall::current = nullptr;

RaisingCall::RaisingCall(const std::string& call) : state_{new State{call}} {
  state_->exception = [[NSException alloc] initWithName:NSInternalInconsistencyException
                                                 reason:@(call.c_str())
                                               userInfo:nil];
  current = state_;
  const auto space = call.find(' ');
  if (space == std::string::npos) return;
  Class type = NSClassFromString(@(call.substr(2, space - 2).c_str()));
  if (call.front() == '+') type = object_getClass((id)type);
  const SEL selector = sel_registerName(call.substr(space + 1, call.size() - space - 2).c_str());
  const Method inherited = class_getInstanceMethod(type, selector);
  if (!inherited) {
    (void)std::fprintf(stderr, "there is no %s\n", call.c_str());
    std::abort();
  }
  // A method of its own, so that objects of other classes do not raise.
  state_->before = method_getImplementation(inherited);
  (void)class_addMethod(type, selector, state_->before, method_getTypeEncoding(inherited));
  state_->method = class_getInstanceMethod(type, selector);
  state_->type = type;
  state_->use(reinterpret_cast<IMP>(reinterpret_cast<void (*)()>(&State::raiseInMethod)));
}

RaisingCall::~RaisingCall() {
  if (state_->method) state_->use(state_->before);
  [state_->exception release];
  current = nullptr;
  delete state_;
}

std::size_t RaisingCall::count() const { return state_->count; }

void raiseIn(const char* function) {
  if (RaisingCall::current && RaisingCall::current->call == function) RaisingCall::current->raise();
}

}  // namespace mirel::test
