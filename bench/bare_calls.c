/* bare_calls MODULE PIN-FILE
 *
 * Makes the calls in CALLS, a file that tests/module/CallWriter.cpp has written of a run of mireltoken, and nothing
 * else: what is left of a command when all of our own work is taken away. A call that answers something else than it
 * did then ends it.
 */
#include <dlfcn.h>
#include <stdio.h>
#include <stdlib.h>

typedef unsigned long UL;
typedef void* P;
struct attribute { UL type; void* value; UL length; };
struct mechanism { UL type; void* parameter; UL length; };
struct initialize { P create, destroy, lock, unlock; UL flags; P reserved; };
struct list { unsigned char version[2]; void (*entries[68])(void); };

#define CALL(place, result, ...) expect(place, result, ((UL(*)(__VA_ARGS__))functions->entries[place])

static void expect(int place, UL result, UL answer) {
  if (answer == result) return;
  fprintf(stderr, "bare_calls: function %d answers %lu instead of %lu\n", place, answer, result);
  exit(1);
}

int main(int argc, char** argv) {
  unsigned char pin[64];
  UL pinLen = 0;
  struct list* functions = 0;
  if (argc != 3) return 2;
  FILE* file = fopen(argv[2], "r");
  if (!file) return 2;
  pinLen = fread(pin, 1, sizeof pin, file);
  fclose(file);
  void* library = dlopen(argv[1], RTLD_NOW);
  if (!library) return 2;
  UL (*entry)(struct list**) = (UL(*)(struct list**))dlsym(library, "C_GetFunctionList");
  if (!entry || entry(&functions) != 0) return 2;
  (void)pin;
  (void)pinLen;
#include CALLS
  return 0;
}
