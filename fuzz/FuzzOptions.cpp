// How the sanitizers work in a fuzzer: a run makes thousands of small blocks, of which neither the way to
// each nor a long memory of freed ones is worth half of the time. What is kept of those fits into a cache.

extern "C" const char* __asan_default_options();

const char* __asan_default_options() {
  return "malloc_context_size=1:quarantine_size_mb=1:thread_local_quarantine_size_kb=64:detect_stack_use_"
         "after_return=0";
}
