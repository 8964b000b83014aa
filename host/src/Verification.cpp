#include "host/Verification.h"

#include <algorithm>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "RsaEncoding.h"
#include "platform/PublicKey.h"
#include "provider/CryptTKitSProvider.h"

namespace mirel {
namespace {

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

/// " (C_Sign answered CKR_DEVICE_ERROR (0x30))", where something is known to have gone wrong in the card.
std::string remarkOn(const Signature& signature) {
  return signature.fault ? " (" + signature.fault->reason + ")" : std::string{};
}

/// Why a signature that does not verify is none, and whether that is the cause.
std::pair<std::string, bool> whyWrong(const PublicKey& publicKey, const PublishedKey& key,
                                      SecKeyAlgorithm algorithm, const Signature& signature) {
  if (allZero(signature.value)) {
    if (signature.fault)
      return {"the signature is all zeros: the card made none" + remarkOn(signature), false};
    return {"the signature is all zeros: the card layer handed none out", false};
  }
  if (key.keyType == CertificateKeyType::kRSA && signature.value.size() != modulusSizeOf(key)) {
    return {"the signature has " + std::to_string(signature.value.size()) + " bytes, one by this key has " +
                std::to_string(modulusSizeOf(key)) + remarkOn(signature),
            false};
  }
  const bool isPKCS1 = nameOf(algorithm).find("PKCS1v15") != std::string_view::npos;
  if (isPKCS1 && isUnpadded(publicKey.recoveredBlock(signature.value.view()), algorithm, signature.data)) {
    return {"the signature does not verify: the module does not pad, so PKCS #1 v1.5 (" +
                std::string{kPkcs1Users} + ") through this card does not verify; PSS does",
            true};
  }
  return {"the signature does not verify with the public key of the certificate" + remarkOn(signature),
          false};
}

/// `why`: where no call of the card that failed explains it.
Failure noSignature(const Signature& signature, const std::string& why, bool isCause) {
  constexpr const char* kWhat = "there is no good signature";
  const auto failed = signature.fault ? signature.fault->failure : std::nullopt;
  if (failed) {
    Failure failure = *failed;
    failure.what = kWhat;
    return failure;
  }
  Failure failure{FailureKind::kVerificationFailed, kWhat, why, "try another algorithm or key", isCause};
  failure.isCardUnasked = signature.fault && signature.fault->isCardUnasked;
  return failure;
}

}  // namespace

Result<void> verifySignature(const PublishedCertificate& certificate, const PublishedKey& key,
                             SecKeyAlgorithm algorithm, const Signature& signature) {
  const auto none = [&](const std::string& why) { return noSignature(signature, why, false); };
  if (signature.value.size() == 0) return none("the signature is empty" + remarkOn(signature));
  const auto publicKey = publicKeyOfCertificate(certificate.data.view());
  if (!publicKey) return none("the public key of the certificate cannot be read");
  if (publicKey->verifies(algorithm, signature.data.view(), signature.value.view())) return {};
  const auto [why, isCause] = whyWrong(*publicKey, key, algorithm, signature);
  return noSignature(signature, why, isCause);
}

}  // namespace mirel
