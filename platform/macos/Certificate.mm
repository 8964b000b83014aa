#include "platform/Certificate.h"

#import <Foundation/Foundation.h>
#import <Security/Security.h>

#include "Certificate.h"
#include "Convert.h"
#include "Holder.h"
#include "platform/KeyUsage.h"

namespace mirel {
namespace {

/// A certificate of the platform. What only the command line shows is left out here.
class PlatformCertificate final : public SecCertificate {
 public:
  PlatformCertificate(Bytes der, CFHolder<SecCertificateRef> certificate)
      : der_{std::move(der)}, certificate_{std::move(certificate)} {}

  [[nodiscard]] Bytes data() const noexcept override { return der_; }
  [[nodiscard]] std::optional<std::int32_t> keyUsage() const noexcept override;
  [[nodiscard]] Text subject() const noexcept override { return {}; }
  [[nodiscard]] Text notAfter() const noexcept override { return {}; }
  [[nodiscard]] CertificateKeyType keyType() const noexcept override { return CertificateKeyType::kOther; }
  [[nodiscard]] int keySizeInBits() const noexcept override { return 0; }

  [[nodiscard]] SecCertificateRef ref() const noexcept { return certificate_.get(); }

 private:
  Bytes der_;
  CFHolder<SecCertificateRef> certificate_;
};

std::optional<std::int32_t> PlatformCertificate::keyUsage() const noexcept {
  @autoreleasepool {
    const auto values =
        CFHolder<CFDictionaryRef>::adopt(SecCertificateCopyValues(certificate_.get(), nullptr, nullptr));
    if (!values) return std::nullopt;
    NSDictionary* entries = (NSDictionary*)values.get();
    NSDictionary* entry = [entries objectForKey:(NSString*)kSecOIDKeyUsage];
    const id value = [entry objectForKey:(NSString*)kSecPropertyKeyValue];
    if (![value isKindOfClass:[NSNumber class]]) return std::nullopt;
    // Which bit of the number stands for which use is not documented, and the SDK declares two layouts
    // (digitalSignature as the lowest bit, and as 0x8000). The bits are the certificate's own, therefore.
    return keyUsageOfCertificate(der_.view());
  }
}

class PlatformCertificateParser final : public CertificateParser {
 public:
  [[nodiscard]] std::shared_ptr<SecCertificate> createWithData(const Bytes& der) noexcept override {
    if (der.isNull()) return nullptr;
    @autoreleasepool {
      auto certificate =
          CFHolder<SecCertificateRef>::adopt(SecCertificateCreateWithData(nullptr, (CFDataRef)dataOf(der)));
      return certificate ? std::make_shared<PlatformCertificate>(der, std::move(certificate)) : nullptr;
    }
  }
};

}  // namespace

SecCertificateRef refOf(const SecCertificate& certificate) noexcept {
  const auto* ours = dynamic_cast<const PlatformCertificate*>(&certificate);
  return ours ? ours->ref() : nullptr;
}

std::shared_ptr<SecCertificate> wrapped(SecCertificateRef certificate) noexcept {
  if (!certificate) return nullptr;
  CFRetain(certificate);
  const auto der = CFHolder<CFDataRef>::adopt(SecCertificateCopyData(certificate));
  return std::make_shared<PlatformCertificate>(bytesOf((NSData*)der.get()),
                                               CFHolder<SecCertificateRef>::adopt(certificate));
}

std::shared_ptr<CertificateParser> systemCertificateParser() {
  return std::make_shared<PlatformCertificateParser>();
}

}  // namespace mirel
