#include "bridge/CardRules.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <span>

namespace mirel {
namespace {

// The instance identifier takes in the bytes of the flags word, least significant first.
static_assert(std::endian::native == std::endian::little);

/// Without the padding at the structure's end, which has no defined content.
using TokenInfoBytes =
    std::array<std::uint8_t, offsetof(CK_TOKEN_INFO, utcTime) + sizeof CK_TOKEN_INFO::utcTime>;

/// The bytes from `offset` to the first zero byte.
Text zeroTerminatedText(const TokenInfoBytes& info, std::size_t offset) {
  const auto start = info.begin() + static_cast<std::ptrdiff_t>(offset);
  return Text::fromBytes(std::span{start, std::find(start, info.end(), 0)});
}

}  // namespace

Text certificateNameOf(const Text& label, const Text& id) {
  return joined({Text{kCertificateNamePrefix}, label, Text{u"_"}, id});
}

Text instanceIDOf(const CK_TOKEN_INFO& token) {
  TokenInfoBytes bytes{};
  std::memcpy(bytes.data(), &token, bytes.size());
  return joined({zeroTerminatedText(bytes, offsetof(CK_TOKEN_INFO, label)),
                 zeroTerminatedText(bytes, offsetof(CK_TOKEN_INFO, serialNumber))});
}

}  // namespace mirel
