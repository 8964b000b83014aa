#include "host/Verification.h"

#include <algorithm>
#include <string_view>

#include "RsaEncoding.h"
#include "platform/PublicKey.h"

namespace mirel {
namespace {

constexpr const char* kPssName =
    "a key with PSS in its name signs by PSS in the card, and that signature is not handed out";
constexpr int kLongestSigningKey = 2048;  // bits

/// True for zeros with, at the end, exactly the data that PKCS #1 v1.5 should have padded.
bool isUnpadded(const ByteVector& block, SecKeyAlgorithm algorithm, const Bytes& data) {
  const auto hash = hashOf(algorithm);
  const ByteVector wanted =
      hash ? digestInfo(*hash, data.view()) : ByteVector{data.view().begin(), data.view().end()};
  if (block.size() < wanted.size()) return false;
  const auto start = block.end() - static_cast<std::ptrdiff_t>(wanted.size());
  return std::equal(start, block.end(), wanted.begin()) &&
         std::all_of(block.begin(), start, [](std::uint8_t byte) { return byte == 0; });
}

bool allZero(const Bytes& bytes) {
  return std::all_of(bytes.view().begin(), bytes.view().end(), [](std::uint8_t byte) { return byte == 0; });
}

/// Why no signature can come of that key, whatever the card says; empty when one can.
std::string troubleOfKey(const PublishedKey& key) {
  if (key.keyType != CertificateKeyType::kRSA) return "only RSA keys sign through this card layer";
  if (key.keySizeInBits > kLongestSigningKey)
    return "RSA keys above 2048 bits do not sign through this card layer";
  return containsIgnoringCase(key.certificateID, u"PSS") ? kPssName : std::string{};
}

}  // namespace

std::string signatureTrouble(const PublishedCertificate& certificate, const PublishedKey& key,
                             SecKeyAlgorithm algorithm, const Signature& signature) {
  const std::string because = signature.cardTrouble.empty() ? "" : " (" + signature.cardTrouble + ")";
  if (signature.value.size() == 0) {
    const std::string ofKey = troubleOfKey(key);
    if (ofKey == kPssName) return ofKey + because;
    return "the signature is empty" + (ofKey.empty() ? "" : ": " + ofKey) + because;
  }
  const auto publicKey = publicKeyOfCertificate(certificate.data.view());
  if (!publicKey) return "the public key of the certificate cannot be read";
  if (publicKey->verifies(algorithm, signature.data.view(), signature.value.view())) return {};

  if (allZero(signature.value)) {
    if (!signature.cardTrouble.empty()) return "the signature is all zeros: the card made none" + because;
    if (containsIgnoringCase(key.certificateID, u"PSS")) return kPssName;
    return "the signature is all zeros: the card layer handed none out";
  }
  if (key.keyType == CertificateKeyType::kRSA && signature.value.size() != modulusSizeOf(key)) {
    return "the signature has " + std::to_string(signature.value.size()) + " bytes, one by this key has " +
           std::to_string(modulusSizeOf(key)) + because;
  }
  const bool isPKCS1 = nameOf(algorithm).find("PKCS1v15") != std::string_view::npos;
  if (isPKCS1 && isUnpadded(publicKey->recoveredBlock(signature.value.view()), algorithm, signature.data)) {
    return "the signature does not verify: the module does not pad, so PKCS #1 v1.5 through this card does "
           "not verify; PSS does";
  }
  return "the signature does not verify with the public key of the certificate" + because;
}

Failure signatureFailure(const PublishedKey& key, const Signature& signature, const std::string& trouble) {
  constexpr const char* kWhat = "there is no good signature";
  const auto& card = signature.cardFailure;
  const bool gone = card && card->kind == FailureKind::kCardGone;
  if (card && (gone || troubleOfKey(key).empty()))
    return {card->kind, kWhat, card->why, "nothing was written; " + card->whatToDo};
  return {FailureKind::kVerificationFailed, kWhat, trouble,
          "nothing was written; try another algorithm or key"};
}

}  // namespace mirel
