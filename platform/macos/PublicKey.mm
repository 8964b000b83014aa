#include "platform/PublicKey.h"

#import <Foundation/Foundation.h>
#import <Security/Security.h>

#include <string>
#include <string_view>

#include "Algorithms.h"
#include "Convert.h"
#include "Holder.h"

namespace mirel {
namespace {

NSData* copyOf(std::span<const std::uint8_t> bytes) noexcept {
  return [NSData dataWithBytes:bytes.data() length:bytes.size()];
}

/// The algorithm that does the same with the digest of a message, which is what a token gets.
SecKeyAlgorithm digestForm(SecKeyAlgorithm algorithm) {
  constexpr std::string_view kMessage = "SignatureMessage";
  std::string name{nameOf(algorithm)};
  if (const auto at = name.find(kMessage); at != std::string::npos) {
    name.replace(at, kMessage.size(), "SignatureDigest");
  }
  return secKeyAlgorithmNamed(name).value_or(algorithm);
}

class PlatformPublicKey final : public PublicKey {
 public:
  explicit PlatformPublicKey(CFHolder<SecKeyRef> key) noexcept : key_{std::move(key)} {}

  [[nodiscard]] bool verifies(SecKeyAlgorithm algorithm, std::span<const std::uint8_t> data,
                              std::span<const std::uint8_t> signature) const noexcept override {
    @autoreleasepool {
      return SecKeyVerifySignature(key_.get(), constantOf(digestForm(algorithm)), (CFDataRef)copyOf(data),
                                   (CFDataRef)copyOf(signature), nullptr) != 0;
    }
  }

  [[nodiscard]] ByteVector recoveredBlock(std::span<const std::uint8_t> signature) const noexcept override {
    if (signature.size() != SecKeyGetBlockSize(key_.get())) return {};
    @autoreleasepool {
      // Encryption without padding is the same computation.
      const auto block = CFHolder<CFDataRef>::adopt(SecKeyCreateEncryptedData(
          key_.get(), ::kSecKeyAlgorithmRSAEncryptionRaw, (CFDataRef)copyOf(signature), nullptr));
      const auto view = bytesOf((NSData*)block.get());
      return {view.view().begin(), view.view().end()};
    }
  }

 private:
  CFHolder<SecKeyRef> key_;
};

}  // namespace

std::unique_ptr<PublicKey> publicKeyOfCertificate(std::span<const std::uint8_t> der) noexcept {
  @autoreleasepool {
    const auto certificate =
        CFHolder<SecCertificateRef>::adopt(SecCertificateCreateWithData(nullptr, (CFDataRef)copyOf(der)));
    if (!certificate) return nullptr;
    auto key = CFHolder<SecKeyRef>::adopt(SecCertificateCopyKey(certificate.get()));
    return key ? std::make_unique<PlatformPublicKey>(std::move(key)) : nullptr;
  }
}

}  // namespace mirel
