#include <array>

#include "platform/Digest.h"

namespace mirel {
namespace {

constexpr std::array<HashFacts, 5> kFacts{
    {{"SHA1", 20}, {"SHA224", 28}, {"SHA256", 32}, {"SHA384", 48}, {"SHA512", 64}}};

}  // namespace

const HashFacts& factsOf(Hash hash) noexcept { return kFacts[static_cast<std::size_t>(hash)]; }

ByteVector digestOf(Hash hash, std::span<const std::uint8_t> data) {
  Digest digest{hash};
  digest.update(data);
  return digest.finish();
}

}  // namespace mirel
