#include "RsaEncoding.h"

#include <algorithm>
#include <array>
#include <stdexcept>

#include "platform/Random.h"
#include "platform/Text.h"

namespace mirel {
namespace {

constexpr std::size_t kLeastPadding = 8;  // bytes
constexpr std::uint8_t kPssTrailer = 0xBC;
constexpr std::uint8_t kHashIdentifiers[5][9] = {
    {0x2B, 0x0E, 0x03, 0x02, 0x1A},
    {0x60, 0x86, 0x48, 0x01, 0x65, 0x03, 0x04, 0x02, 0x04},
    {0x60, 0x86, 0x48, 0x01, 0x65, 0x03, 0x04, 0x02, 0x01},
    {0x60, 0x86, 0x48, 0x01, 0x65, 0x03, 0x04, 0x02, 0x02},
    {0x60, 0x86, 0x48, 0x01, 0x65, 0x03, 0x04, 0x02, 0x03},
};
constexpr std::uint8_t kSequence = 0x30;
constexpr std::uint8_t kObjectIdentifier = 0x06;
constexpr std::uint8_t kOctetString = 0x04;

std::span<const std::uint8_t> identifierOf(Hash hash) noexcept {
  const auto& bytes = kHashIdentifiers[static_cast<std::size_t>(hash)];
  return std::span{bytes}.first(hash == Hash::kSHA1 ? 5 : 9);
}

void append(ByteVector& out, std::span<const std::uint8_t> bytes) {
  out.insert(out.end(), bytes.begin(), bytes.end());
}

/// A value of DER with a length below 128.
ByteVector derValue(std::uint8_t tag, std::span<const std::uint8_t> content) {
  ByteVector value(2 + content.size());
  value[0] = tag;
  value[1] = static_cast<std::uint8_t>(content.size());
  std::copy(content.begin(), content.end(), value.begin() + 2);
  return value;
}

/// Section B.2.1.
ByteVector mgf1(Hash hash, std::span<const std::uint8_t> seed, std::size_t size) {
  ByteVector mask;
  for (std::uint32_t counter = 0; mask.size() < size; ++counter) {
    Digest digest{hash};
    digest.update(seed);
    const std::array<std::uint8_t, 4> octets{
        static_cast<std::uint8_t>(counter >> 24U), static_cast<std::uint8_t>(counter >> 16U),
        static_cast<std::uint8_t>(counter >> 8U), static_cast<std::uint8_t>(counter)};
    digest.update(octets);
    append(mask, digest.finish());
  }
  mask.resize(size);
  return mask;
}

ByteVector maskedWith(std::span<const std::uint8_t> bytes, const ByteVector& mask) {
  ByteVector out(bytes.size());
  std::transform(bytes.begin(), bytes.end(), mask.begin(), out.begin(),
                 [](std::uint8_t a, std::uint8_t b) { return static_cast<std::uint8_t>(a ^ b); });
  return out;
}

}  // namespace

ByteVector digestInfo(Hash hash, std::span<const std::uint8_t> digest) {
  constexpr std::uint8_t kNull[] = {0x05, 0x00};
  ByteVector algorithm = derValue(kObjectIdentifier, identifierOf(hash));
  append(algorithm, kNull);
  ByteVector content = derValue(kSequence, algorithm);
  append(content, derValue(kOctetString, digest));
  return derValue(kSequence, content);
}

std::optional<ByteVector> paddedForSigning(std::span<const std::uint8_t> data, std::size_t blockSize) {
  if (blockSize < data.size() + kLeastPadding + 3) return std::nullopt;
  ByteVector block(blockSize - data.size() - 1, 0xFF);
  block[0] = 0x00;
  block[1] = 0x01;
  block.push_back(0x00);
  append(block, data);
  return block;
}

std::optional<ByteVector> encodedForPss(Hash hash, std::span<const std::uint8_t> digest,
                                        std::size_t modulusBits, TimeAndChance& chance) {
  const std::size_t hashSize = factsOf(hash).size;
  const std::size_t encodedBits = modulusBits - 1;
  const std::size_t encodedSize = (encodedBits + 7) / 8;
  if (modulusBits < 2 || encodedSize < 2 * hashSize + 2) return std::nullopt;

  ByteVector salt(hashSize);
  if (!chance.drawSalt(salt)) throw std::runtime_error{"the operating system has no random bytes"};
  ByteVector toHash(8, 0x00);
  append(toHash, digest);
  append(toHash, salt);
  const ByteVector h = digestOf(hash, toHash);

  ByteVector dataBlock(encodedSize - hashSize - 1, 0x00);
  dataBlock[dataBlock.size() - salt.size() - 1] = 0x01;
  std::copy(salt.begin(), salt.end(), dataBlock.end() - static_cast<std::ptrdiff_t>(salt.size()));
  ByteVector encoded = maskedWith(dataBlock, mgf1(hash, h, dataBlock.size()));
  encoded[0] = static_cast<std::uint8_t>(encoded[0] & (0xFFU >> (8 * encodedSize - encodedBits)));
  append(encoded, h);
  encoded.push_back(kPssTrailer);
  encoded.insert(encoded.begin(), (modulusBits + 7) / 8 - encodedSize, 0x00);
  return encoded;
}

std::optional<ByteVector> paddedForEncrypting(std::span<const std::uint8_t> message, std::size_t blockSize) {
  if (blockSize < message.size() + kLeastPadding + 3) return std::nullopt;
  ByteVector block(blockSize);
  block[1] = 2;
  const std::size_t paddingEnd = blockSize - message.size() - 1;
  for (std::size_t i = 2; i < paddingEnd;) {
    // One at a time: zeros do not count.
    if (!fillWithRandomBytes(std::span{block}.subspan(i, 1))) return std::nullopt;
    if (block[i] != 0) ++i;
  }
  std::copy(message.begin(), message.end(), block.begin() + static_cast<std::ptrdiff_t>(paddingEnd) + 1);
  return block;
}

std::optional<ByteVector> unpaddedAfterDecrypting(std::span<const std::uint8_t> block) {
  if (block.size() < kLeastPadding + 3 || block[0] != 0x00 || block[1] != 0x02) return std::nullopt;
  const auto end = std::find(block.begin() + 2, block.end(), std::uint8_t{0});
  if (end == block.end() || end - block.begin() < static_cast<std::ptrdiff_t>(kLeastPadding + 2))
    return std::nullopt;
  return ByteVector{end + 1, block.end()};
}

std::optional<ByteVector> decodedFromOaep(Hash hash, std::span<const std::uint8_t> encoded) {
  const std::size_t hashSize = factsOf(hash).size;
  if (encoded.size() < 2 * hashSize + 2 || encoded[0] != 0x00) return std::nullopt;
  const auto maskedSeed = encoded.subspan(1, hashSize);
  const auto maskedData = encoded.subspan(1 + hashSize);
  const Bytes seed = Bytes::secret(Bytes{maskedWith(maskedSeed, mgf1(hash, maskedData, hashSize))});
  const Bytes block =
      Bytes::secret(Bytes{maskedWith(maskedData, mgf1(hash, seed.view(), maskedData.size()))});
  const std::span data = block.view();
  const ByteVector labelHash = digestOf(hash, {});
  if (!std::equal(labelHash.begin(), labelHash.end(), data.begin())) return std::nullopt;
  const auto mark = std::find_if(data.begin() + static_cast<std::ptrdiff_t>(hashSize), data.end(),
                                 [](std::uint8_t byte) { return byte != 0x00; });
  if (mark == data.end() || *mark != 0x01) return std::nullopt;
  return ByteVector{mark + 1, data.end()};
}

}  // namespace mirel
