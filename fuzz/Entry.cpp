// Where the fuzzer, or what replays files, enters a target.

#include <cstddef>
#include <cstdint>

#include "Input.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  mirel::fuzz::Input input{{data, size}};
  mirel::fuzz::runTarget(input);
  return 0;
}
