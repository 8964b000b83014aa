#include "platform/PublicKey.h"

#import <Foundation/Foundation.h>
#import <Security/Security.h>

#include <string>
#include <string_view>

#include "Algorithms.h"
#include "Convert.h"
#include "Guard.h"
#include "Holder.h"

namespace mirel {
namespace {

/// Not by dataOf: this runs within the guard of who calls it.
NSData* copyOf(std::span<const std::uint8_t> bytes) {
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
      return guarded("a signature is not verified", [&] {
        return SecKeyVerifySignature(key_.get(), constantOf(digestForm(algorithm)), (CFDataRef)copyOf(data),
                                     (CFDataRef)copyOf(signature), nullptr) != 0;
      });
    }
  }

  [[nodiscard]] ByteVector recoveredBlock(std::span<const std::uint8_t> signature) const noexcept override {
    @autoreleasepool {
      const auto block = guarded("the block in a signature is not known", [&] {
        if (signature.size() != SecKeyGetBlockSize(key_.get())) return CFHolder<CFDataRef>{};
        // Encryption without padding is the same computation.
        return CFHolder<CFDataRef>::adopt(SecKeyCreateEncryptedData(
            key_.get(), ::kSecKeyAlgorithmRSAEncryptionRaw, (CFDataRef)copyOf(signature), nullptr));
      });
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
    auto key = guarded("the key of a certificate is not read", [&] {
      const auto certificate =
          CFHolder<SecCertificateRef>::adopt(SecCertificateCreateWithData(nullptr, (CFDataRef)copyOf(der)));
      return certificate ? CFHolder<SecKeyRef>::adopt(SecCertificateCopyKey(certificate.get()))
                         : CFHolder<SecKeyRef>{};
    });
    return key ? std::make_unique<PlatformPublicKey>(std::move(key)) : nullptr;
  }
}

}  // namespace mirel
