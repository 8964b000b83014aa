#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string_view>

#include "platform/Bytes.h"

namespace mirel {

/// The hash functions of FIPS 180-4 that the names of key algorithms know.
enum class Hash { kSHA1, kSHA224, kSHA256, kSHA384, kSHA512 };

struct HashFacts {
  std::string_view name;  ///< as the names of algorithms have it
  std::size_t size;       ///< of the digest, in bytes
};

[[nodiscard]] const HashFacts& factsOf(Hash hash) noexcept;

/// A digest in the making, computed by the running system's library. Like a function of the system it is
/// not handed down: the result depends on the data alone.
/// Throws std::runtime_error where that library cannot.
class Digest {
 public:
  explicit Digest(Hash hash);
  Digest(const Digest&) = delete;
  Digest& operator=(const Digest&) = delete;
  ~Digest();

  void update(std::span<const std::uint8_t> data);
  /// Ends it; to be called once.
  [[nodiscard]] ByteVector finish();

 private:
  struct State;
  std::unique_ptr<State> state_;
};

[[nodiscard]] ByteVector digestOf(Hash hash, std::span<const std::uint8_t> data);

}  // namespace mirel
