#include "LeakCheck.h"

extern "C" {

__attribute__((weak)) void __lsan_do_leak_check();

// What the sanitizers ask for when they start. The frames of the Objective-C runtime cannot be walked by
// their frame pointers, and each one takes its time.
__attribute__((visibility("default"))) const char* __asan_default_options() {
  return "fast_unwind_on_malloc=0:malloc_context_size=10";
}

// The runtime loses sight of tables that it keeps until the end.
__attribute__((visibility("default"))) const char* __lsan_default_suppressions() {
  return "leak:objc_malloc\nleak:objc_calloc\nleak:class_copyMethodList\n";
}

}  // extern "C"

void mirel::test::checkForLeaks() {
  if (__lsan_do_leak_check) __lsan_do_leak_check();
}
