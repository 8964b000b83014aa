#include "token/ProcessMemory.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <fstream>
#include <random>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>

// The newer address sanitizers keep local variables in frames of their own, where a function that has
// returned leaves nothing behind. Their run-time library looks for this by name.
extern "C" [[gnu::visibility("default")]] const char* __asan_default_options();
const char* __asan_default_options() { return "detect_stack_use_after_return=0"; }

namespace mirel::test {
namespace {

constexpr std::size_t kBufferSize = std::size_t{1} << 20U;  // bytes

/// The address sanitizer notes in mappings of this size and more which bytes may be used. They hold no data
/// of the program, and no reader comes to their end.
constexpr std::uint64_t kShadowSize = std::uint64_t{1} << 34U;  // bytes

struct Mapping {
  std::uint64_t begin = 0;
  std::uint64_t end = 0;
};

/// The mappings that the process can write to and shares with nobody.
std::vector<Mapping> privateMappings() {
  std::vector<Mapping> mappings;
  std::ifstream file{"/proc/self/maps"};
  for (std::string line; std::getline(file, line);) {
    const std::size_t dash = line.find('-');
    const std::size_t blank = line.find(' ');
    if (line.substr(blank + 1, 2) != "rw" || line.at(blank + 4) != 'p') continue;
    const Mapping mapping{std::stoull(line.substr(0, dash), nullptr, 16),
                          std::stoull(line.substr(dash + 1, blank - dash - 1), nullptr, 16)};
    if (mapping.end - mapping.begin < kShadowSize) mappings.push_back(mapping);
  }
  if (mappings.empty()) throw std::runtime_error{"the process's memory cannot be listed"};
  return mappings;
}

/// Whether the PIN stands at the front, each character in `stride` bytes, the others 0.
bool beginsWith(std::span<const std::uint8_t> bytes, const HiddenPin& pin, std::size_t stride) {
  if (bytes.size() < HiddenPin::kSize * stride) return false;
  for (std::size_t i = 0; i < HiddenPin::kSize; ++i) {
    if (bytes[i * stride] != pin.at(i)) return false;
    if (stride == 2 && bytes[i * stride + 1] != 0) return false;
  }
  return true;
}

/// Counts the copies that begin in the first `limit` bytes.
void count(std::span<const std::uint8_t> bytes, std::size_t limit, const HiddenPin& pin, PinCopies& copies) {
  for (std::size_t at = 0; at < limit; ++at) {
    const void* const found = std::memchr(&bytes[at], pin.at(0), limit - at);
    if (!found) return;
    at = static_cast<std::size_t>(static_cast<const std::uint8_t*>(found) - bytes.data());
    copies.ascii += beginsWith(bytes.subspan(at), pin, 1) ? 1U : 0U;
    copies.utf16 += beginsWith(bytes.subspan(at), pin, 2) ? 1U : 0U;
  }
}

}  // namespace

HiddenPin::HiddenPin() {
  constexpr std::string_view kCharacters = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789";
  std::random_device random;
  for (std::size_t i = 0; i < kSize; ++i) {
    mask_[i] = static_cast<std::uint8_t>(0x80U | random() % 0x80U);
    half_[i] = static_cast<std::uint8_t>(kCharacters[random() % kCharacters.size()] ^ mask_[i]);
  }
}

PinCopies copiesInMemory(const HiddenPin& pin) {
  const int memory = ::open("/proc/self/mem", O_RDONLY | O_CLOEXEC);
  if (memory < 0) throw std::runtime_error{"the process's memory cannot be read"};
  PinCopies copies;
  // In this buffer a copy would be found again, so it is left out.
  static std::vector<std::uint8_t> buffer(kBufferSize);
  const auto bufferAt = reinterpret_cast<std::uint64_t>(buffer.data());
  constexpr std::uint64_t kOverlap = 2 * HiddenPin::kSize - 1;
  constexpr std::uint64_t kStep = kBufferSize - kOverlap;
  for (const Mapping& mapping : privateMappings()) {
    for (std::uint64_t at = mapping.begin; at < mapping.end; at += kStep) {
      const std::uint64_t size = std::min<std::uint64_t>(kBufferSize, mapping.end - at);
      if (::pread(memory, buffer.data(), size, static_cast<off_t>(at)) != static_cast<ssize_t>(size)) {
        throw std::runtime_error{"some of the process's memory cannot be read"};
      }
      const auto from = static_cast<std::ptrdiff_t>(std::clamp(bufferAt, at, at + size) - at);
      const auto to = static_cast<std::ptrdiff_t>(std::clamp(bufferAt + kBufferSize, at, at + size) - at);
      std::fill(buffer.begin() + from, buffer.begin() + to, std::uint8_t{0});
      count(std::span{buffer}.first(size), std::min(size, kStep), pin, copies);
    }
  }
  std::fill(buffer.begin(), buffer.end(), std::uint8_t{0});
  (void)::close(memory);
  return copies;
}

}  // namespace mirel::test
