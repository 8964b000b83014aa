#include "RequestData.h"

#include <algorithm>
#include <span>
#include <vector>

#include "RsaEncoding.h"

namespace mirel {
namespace {

constexpr std::size_t kLargestInput = 65536;  // bytes
constexpr std::size_t kPieceSize = 16384;     // bytes; all are set to zero, also for a short input

}  // namespace

Failure badInput(const std::string& why) {
  return {FailureKind::kBadInput, "the data do not fit the algorithm", why,
          "give it what the algorithm works on"};
}

Result<ByteVector> readAll(InputSource& input) {
  ByteVector data;
  std::vector<std::uint8_t> piece(kPieceSize);
  while (true) {
    const auto count = input.read(piece);
    if (!count) return count.failure();
    if (*count == 0) return data;
    data.insert(data.end(), piece.begin(), piece.begin() + static_cast<std::ptrdiff_t>(*count));
    if (data.size() > kLargestInput)
      return badInput("there are more than " + std::to_string(kLargestInput) + " bytes of them");
  }
}

Result<ByteVector> readDigest(Hash hash, InputSource& input) {
  Digest digest{hash};
  std::vector<std::uint8_t> piece(kPieceSize);
  while (true) {
    const auto count = input.read(piece);
    if (!count) return count.failure();
    if (*count == 0) return digest.finish();
    digest.update(std::span{piece}.first(*count));
  }
}

Result<void> checkSize(SecKeyAlgorithm algorithm, const PublishedKey& key, std::size_t size) {
  std::size_t wanted = 0;
  std::string what;
  const auto step = nextStep(algorithm);
  const bool digestWanted =
      step && (step->kind == AdaptationKind::kDigestInfo || step->kind == AdaptationKind::kEncodePSS ||
               step->kind == AdaptationKind::kAsItIs);
  if (digestWanted) {
    wanted = factsOf(step->hash).size;
    what = "a digest of " + std::string{factsOf(step->hash).name};
  } else if (algorithm == SecKeyAlgorithm::kSecKeyAlgorithmRSASignatureRaw ||
             operationOf(algorithm) == TKTokenOperation::kDecryptData) {
    wanted = modulusSizeOf(key);
    what = "a block for this key";
  }
  if (wanted != 0 && wanted != size) {
    return badInput("they have " + std::to_string(size) + " bytes, " + what + " has " +
                    std::to_string(wanted));
  }
  if (size == 0) return badInput("there are none");
  return {};
}

std::optional<ByteVector> adapted(const AdaptationStep& step, const PublishedKey& key, const ByteVector& data,
                                  TimeAndChance& chance) {
  switch (step.kind) {
    case AdaptationKind::kHash: return digestOf(step.hash, data);
    case AdaptationKind::kDigestInfo: return digestInfo(step.hash, data);
    case AdaptationKind::kPadPKCS1: return paddedForSigning(data, modulusSizeOf(key));
    case AdaptationKind::kEncodePSS:
      return encodedForPss(step.hash, data, static_cast<std::size_t>(std::max(key.keySizeInBits, 0)), chance);
    case AdaptationKind::kAsItIs: return data;
    default: return std::nullopt;
  }
}

Result<void> checkPlainText(SecKeyAlgorithm form, const PublishedKey& key, const ByteVector& cipher,
                            const Bytes& plain) {
  const auto refused = [](const std::string& why) {
    return Failure{FailureKind::kCardRefuses, "the card gave no plain text", why,
                   "ask the maker of the module"};
  };
  constexpr std::size_t kPaddingSize = 11;  // bytes at least (RFC 8017, section 7.2.1)
  const std::size_t blockSize = modulusSizeOf(key);
  if (plain.size() + kPaddingSize <= blockSize) return {};
  const bool mayBeBlock = form == SecKeyAlgorithm::kSecKeyAlgorithmRSAEncryptionRaw;
  if (!mayBeBlock || plain.size() != blockSize) {
    return refused("C_Decrypt answered CKR_OK with " + std::to_string(plain.size()) +
                   " bytes, a plain text in a block for this key has " +
                   std::to_string(blockSize - std::min(blockSize, kPaddingSize)) + " at most");
  }
  // Raw RSA makes zero of nothing but zero.
  const auto isZero = [](std::uint8_t byte) { return byte == 0; };
  const bool nothingWritten = std::all_of(plain.view().begin(), plain.view().end(), isZero) &&
                              !std::all_of(cipher.begin(), cipher.end(), isZero);
  if (nothingWritten) return refused("C_Decrypt answered CKR_OK, but wrote no plain text");
  return {};
}

}  // namespace mirel
