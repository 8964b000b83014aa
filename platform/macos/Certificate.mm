#include "platform/Certificate.h"

#import <Foundation/Foundation.h>
#import <Security/Security.h>

#include <array>
#include <cmath>
#include <cstdio>
#include <ctime>

#include "Certificate.h"
#include "Convert.h"
#include "Guard.h"
#include "Holder.h"
#include "platform/Der.h"
#include "platform/KeyUsage.h"

namespace mirel {
namespace {

class PlatformCertificate final : public SecCertificate {
 public:
  PlatformCertificate(Bytes der, CFHolder<SecCertificateRef> certificate)
      : der_{std::move(der)}, certificate_{std::move(certificate)} {}

  [[nodiscard]] Bytes data() const noexcept override { return der_; }
  [[nodiscard]] std::optional<std::int32_t> keyUsage() const noexcept override;
  [[nodiscard]] Text subject() const noexcept override;
  [[nodiscard]] Text notAfter() const noexcept override;
  [[nodiscard]] CertificateKeyType keyType() const noexcept override;
  [[nodiscard]] int keySizeInBits() const noexcept override;

  [[nodiscard]] SecCertificateRef ref() const noexcept { return certificate_.get(); }

 private:
  /// An attribute of the public key, autoreleased; nil when there is none.
  [[nodiscard]] id keyAttribute(CFStringRef name) const;

  Bytes der_;
  CFHolder<SecCertificateRef> certificate_;
};

/// The value of an entry in what SecCertificateCopyValues tells of the certificate, autoreleased; nil when
/// there is none.
id valueOf(SecCertificateRef certificate, CFStringRef entry) {
  const auto values =
      CFHolder<CFDictionaryRef>::adopt(SecCertificateCopyValues(certificate, nullptr, nullptr));
  NSDictionary* entries = (NSDictionary*)values.get();
  NSDictionary* found = [entries objectForKey:(NSString*)entry];
  return ObjCHolder<NSObject>::retain([found objectForKey:(NSString*)kSecPropertyKeyValue]).autoreleased();
}

/// "YYYY-MM-DDThh:mm:ssZ"; null for a time that no calendar has.
Text utcLine(NSTimeInterval since1970) noexcept {
  constexpr double kMost = 253402300799.0;  // the end of the year 9999
  if (!(since1970 >= -kMost && since1970 <= kMost)) return {};
  const auto seconds = static_cast<std::time_t>(std::floor(since1970));
  std::tm utc{};
  if (!gmtime_r(&seconds, &utc)) return {};
  std::array<char, 80> line{};  // room for six numbers of any value
  (void)std::snprintf(line.data(), line.size(), "%04d-%02d-%02dT%02d:%02d:%02dZ", utc.tm_year + 1900,
                      utc.tm_mon + 1, utc.tm_mday, utc.tm_hour, utc.tm_min, utc.tm_sec);
  return Text::fromUtf8(line.data());
}

std::optional<std::int32_t> PlatformCertificate::keyUsage() const noexcept {
  @autoreleasepool {
    const bool hasKeyUsage = guarded("the key usage is not known",
                                     [&] { return valueOf(certificate_.get(), kSecOIDKeyUsage) != nil; });
    if (!hasKeyUsage) return std::nullopt;
    // What the value looks like is not documented: the SDK declares two layouts of a number (digitalSignature
    // as the lowest bit, and as 0x8000), and any other object is possible. The bits are the certificate's
    // own, therefore.
    return keyUsageOfCertificate(der_.view());
  }
}

Text PlatformCertificate::subject() const noexcept {
  @autoreleasepool {
    const auto summary = guarded("the name of a certificate is not known", [&] {
      return CFHolder<CFStringRef>::adopt(SecCertificateCopySubjectSummary(certificate_.get()));
    });
    const Text text = textOf((NSString*)summary.get());
    return text.isNull() ? Text{u""} : text;
  }
}

Text PlatformCertificate::notAfter() const noexcept {
  @autoreleasepool {
    return guarded("the end of a certificate is not known", [&] {
      const id value = valueOf(certificate_.get(), kSecOIDX509V1ValidityNotAfter);
      // A number counts from the first day of 2001, in UTC.
      if ([value isKindOfClass:[NSNumber class]]) {
        return utcLine([static_cast<NSNumber*>(value) doubleValue] + NSTimeIntervalSince1970);
      }
      return [value isKindOfClass:[NSDate class]]
                 ? utcLine([static_cast<NSDate*>(value) timeIntervalSince1970])
                 : Text{};
    });
  }
}

id PlatformCertificate::keyAttribute(CFStringRef name) const {
  const auto key = CFHolder<SecKeyRef>::adopt(SecCertificateCopyKey(certificate_.get()));
  if (!key) return nil;
  const auto attributes = CFHolder<CFDictionaryRef>::adopt(SecKeyCopyAttributes(key.get()));
  return ObjCHolder<NSObject>::retain([(NSDictionary*)attributes.get() objectForKey:(NSString*)name])
      .autoreleased();
}

CertificateKeyType PlatformCertificate::keyType() const noexcept {
  @autoreleasepool {
    const id type = guarded("the kind of a key is not known", [&] { return keyAttribute(kSecAttrKeyType); });
    if ([type isEqual:(NSString*)kSecAttrKeyTypeRSA]) return CertificateKeyType::kRSA;
    if ([type isEqual:(NSString*)kSecAttrKeyTypeECSECPrimeRandom]) return CertificateKeyType::kECPrimeRandom;
    return CertificateKeyType::kOther;
  }
}

int PlatformCertificate::keySizeInBits() const noexcept {
  @autoreleasepool {
    const id bits =
        guarded("the size of a key is not known", [&] { return keyAttribute(kSecAttrKeySizeInBits); });
    return [bits isKindOfClass:[NSNumber class]] ? [static_cast<NSNumber*>(bits) intValue] : 0;
  }
}

class PlatformCertificateParser final : public CertificateParser {
 public:
  [[nodiscard]] std::shared_ptr<SecCertificate> createWithData(const Bytes& der) noexcept override {
    // The platform takes a certificate with anything behind it.
    if (!onlyDerValue(der.view(), kDerSequence)) return nullptr;
    @autoreleasepool {
      NSData* const data = dataOf(der);
      if (!data) return nullptr;
      auto certificate = guarded("a certificate is not read", [&] {
        return CFHolder<SecCertificateRef>::adopt(SecCertificateCreateWithData(nullptr, (CFDataRef)data));
      });
      return certificate ? std::make_shared<PlatformCertificate>(der, std::move(certificate)) : nullptr;
    }
  }
};

}  // namespace

SecCertificateRef refOf(const SecCertificate& certificate) noexcept {
  const auto* ours = dynamic_cast<const PlatformCertificate*>(&certificate);
  return ours ? ours->ref() : nullptr;
}

std::shared_ptr<CertificateParser> systemCertificateParser() {
  return std::make_shared<PlatformCertificateParser>();
}

}  // namespace mirel
