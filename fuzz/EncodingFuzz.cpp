// The encodings around raw RSA, and DER. Each is held against another way to do the same: OpenSSL, or the
// text of the standard written down as plainly as can be.

#define OPENSSL_SUPPRESS_DEPRECATED  // its functions for paddings alone, without a key

#include <openssl/rsa.h>

#include <algorithm>
#include <optional>
#include <string>

#include "Check.h"
#include "EditedModule.h"
#include "Input.h"
#include "RsaEncoding.h"
#include "platform/Der.h"
#include "platform/TimeAndChance.h"

namespace mirel::fuzz {
namespace {

constexpr std::size_t kMostBytes = 300;  // of a block; RSA keys that are used have up to 256

Hash hashFrom(Input& input) {
  constexpr Hash kHashes[] = {Hash::kSHA256, Hash::kSHA1, Hash::kSHA224, Hash::kSHA384, Hash::kSHA512};
  return kHashes[input.below(std::size(kHashes))];
}

const EVP_MD* openSslHash(Hash hash) { return EVP_get_digestbyname(std::string{factsOf(hash).name}.c_str()); }

ByteVector digestFrom(Input& input, Hash hash) {
  ByteVector digest = input.bytes(factsOf(hash).size);
  digest.resize(factsOf(hash).size);
  return digest;
}

void tryPaddingForSigning(Input& input) {
  const std::size_t blockSize = input.byte() + std::size_t{1};
  const ByteVector data = input.bytes(kMostBytes);
  const auto block = paddedForSigning(data, blockSize);
  check(block.has_value() == (data.size() + 11 <= blockSize), "what has room for its padding is padded");
  if (!block) return;
  ByteVector expected(blockSize, 0xFF);
  expected[0] = 0x00;
  expected[1] = 0x01;
  expected[blockSize - data.size() - 1] = 0x00;
  std::copy(data.begin(), data.end(), expected.end() - static_cast<std::ptrdiff_t>(data.size()));
  check(*block == expected, "the padding is that of EMSA-PKCS1-v1_5");
}

/// RFC 8017, section 7.2.2, step 3.
std::optional<ByteVector> plainlyUnpadded(const ByteVector& block) {
  if (block.size() < 11 || block[0] != 0x00 || block[1] != 0x02) return {};
  const auto zero = std::find(block.begin() + 2, block.end(), std::uint8_t{0});
  if (zero == block.end() || zero - block.begin() < 10) return {};
  return ByteVector(zero + 1, block.end());
}

void tryPaddingForEncrypting(Input& input) {
  const std::size_t blockSize = input.byte() + std::size_t{1};
  const ByteVector message = input.bytes(kMostBytes);
  const auto padded = paddedForEncrypting(message, blockSize);
  check(padded.has_value() == (message.size() + 11 <= blockSize), "what has room for its padding is padded");
  if (padded) check(unpaddedAfterDecrypting(*padded) == message, "the message comes back");

  ByteVector block = padded ? *padded : message;
  for (std::size_t i = input.below(4); i > 0 && !block.empty(); --i)
    block[input.number() % block.size()] = input.byte();
  check(unpaddedAfterDecrypting(block) == plainlyUnpadded(block), "a block is read as the standard says");
}

void tryPss(Input& input) {
  const Hash hash = hashFrom(input);
  const ByteVector digest = digestFrom(input, hash);
  const std::size_t bits = 8 * input.byte() + input.below(9);
  const auto block = encodedForPss(hash, digest, bits, *systemTimeAndChance());
  const std::size_t size = (bits + 7) / 8;
  const bool fits = bits > 1 && (bits - 1 + 7) / 8 >= 2 * factsOf(hash).size + 2;
  check(block.has_value() == fits, "what has room is encoded");
  if (!block) return;
  check(block->size() == size && block->back() == 0xBC, "a block of PSS has the size of the modulus");
  if (bits != 1024) return;
  const test::Value signature = goodKey().rawPrivate(*block);
  check(goodKey().verifies(signature, digest, std::string{factsOf(hash).name}.c_str(), RSA_PKCS1_PSS_PADDING,
                           static_cast<int>(digest.size())),
        "OpenSSL verifies a block of PSS");
}

void tryOaep(Input& input) {
  const Hash hash = hashFrom(input);
  const EVP_MD* const md = openSslHash(hash);
  ByteVector block(input.byte());
  const ByteVector message = input.bytes(kMostBytes);
  const bool isMade =
      block.size() > 2 * factsOf(hash).size + 2 &&
      RSA_padding_add_PKCS1_OAEP_mgf1(block.data(), static_cast<int>(block.size()), message.data(),
                                      static_cast<int>(message.size()), nullptr, 0, md, md) == 1;
  if (!isMade)
    block = message;
  else
    check(decodedFromOaep(hash, block) == message, "the message in a block of OAEP comes out");
  for (std::size_t i = input.below(4); i > 0 && !block.empty(); --i)
    block[input.number() % block.size()] ^= input.byte();
  const auto decoded = decodedFromOaep(hash, block);
  ByteVector room(block.size() + 1);
  const int size =
      block.size() < 2 * factsOf(hash).size + 2
          ? -1
          : RSA_padding_check_PKCS1_OAEP_mgf1(room.data(), static_cast<int>(room.size()), block.data(),
                                              static_cast<int>(block.size()), static_cast<int>(block.size()),
                                              nullptr, 0, md, md);
  check(decoded.has_value() == (size >= 0), "OpenSSL and we take the same blocks");
  if (decoded)
    check(std::equal(decoded->begin(), decoded->end(), room.begin(), room.begin() + size), "for the same");
}

/// X.690, sections 8.1.2, 8.1.3 and 10.1: the size of the value's header, and of its content; nothing for
/// what is not DER, or has a tag of several bytes.
std::optional<std::pair<std::size_t, std::size_t>> sizesOf(std::span<const std::uint8_t> der) {
  if (der.size() < 2 || (der[0] & 0x1FU) == 0x1F) return {};
  if (der[1] < 0x80) return std::pair{std::size_t{2}, std::size_t{der[1]}};
  const std::size_t count = der[1] - std::size_t{0x80};
  if (count == 0 || count > 8 || der.size() < 2 + count || der[2] == 0) return {};
  std::size_t length = 0;
  for (std::size_t i = 0; i < count; ++i) length = length << 8U | der[2 + i];
  if (length < 0x80) return {};
  return std::pair{2 + count, length};
}

void tryDer(Input& input) {
  const std::span<const std::uint8_t> der = input.rest();
  DerReader reader{der};
  for (std::span<const std::uint8_t> rest = der; !rest.empty();) {
    const auto sizes = sizesOf(rest);
    const bool isThere = sizes && sizes->second <= rest.size() - sizes->first;
    check(!reader.atEnd() && reader.isNext(rest[0]), "the next value has its tag");
    const auto content = reader.read(rest[0]);
    check(content.has_value() == isThere, "a value is there when its length says so");
    if (!content) return;
    check(content->data() == rest.data() + sizes->first && content->size() == sizes->second,
          "and is its content");
    const bool isOnly = rest.size() == sizes->first + sizes->second;
    check(onlyDerValue(rest, rest[0]).has_value() == isOnly, "the only value has nothing behind it");
    rest = rest.subspan(sizes->first + sizes->second);
  }
  check(reader.atEnd(), "at the end there is no value");
}

}  // namespace

void runTarget(Input& input) {
  switch (input.below(5)) {
    case 0: return tryPaddingForSigning(input);
    case 1: return tryPaddingForEncrypting(input);
    case 2: return tryPss(input);
    case 3: return tryOaep(input);
    default: return tryDer(input);
  }
}

}  // namespace mirel::fuzz
