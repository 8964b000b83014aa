/// Does with an object what its argument says: a program that the sanitizers must find fault with.

#include <string_view>

#include "LeakCheck.h"
#import "double/Objects.h"

namespace {

TKSmartCardSlot* newSlot() { return [[TKSmartCardSlot alloc] initWithName:@"Reader"]; }

/// A frame of its own, of which nothing is left on the stack.
__attribute__((noinline)) void leak() { [newSlot() name]; }

/// Hides from the compiler what is done to the object.
template <typename Object>
Object* unknown(Object* object) {
  __asm__ volatile("" : "+r"(object));
  return object;
}

}  // namespace

int main(int argc, char** argv) {
  const std::string_view fault = argc > 1 ? argv[1] : "";
  @autoreleasepool {
    TKSmartCardSlot* const slot = newSlot();
    if (fault == "leak") {
      for (int i = 0; i < 10; ++i) leak();
    }
    [slot release];
    if (fault == "over-release") [unknown(slot) release];
    if (fault == "late-use") return static_cast<int>([[unknown(slot) name] length]);
  }
  mirel::test::checkForLeaks();
  return fault == "none" ? 0 : 1;
}
