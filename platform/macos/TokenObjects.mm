#include "TokenObjects.h"

#include <array>

#include "Certificate.h"
#include "Convert.h"
#include "Holder.h"

namespace mirel {
namespace {

/// In the order of SecKeyAlgorithm. Addresses, because the constants have no value before the program runs.
constexpr std::array kConstants{
    &::kSecKeyAlgorithmRSAEncryptionRaw,
    &::kSecKeyAlgorithmRSASignatureRaw,
    &::kSecKeyAlgorithmRSASignatureDigestPKCS1v15Raw,
    &::kSecKeyAlgorithmRSASignatureDigestPKCS1v15SHA1,
    &::kSecKeyAlgorithmRSASignatureDigestPKCS1v15SHA224,
    &::kSecKeyAlgorithmRSASignatureDigestPKCS1v15SHA256,
    &::kSecKeyAlgorithmRSASignatureDigestPKCS1v15SHA384,
    &::kSecKeyAlgorithmRSASignatureDigestPKCS1v15SHA512,
    &::kSecKeyAlgorithmRSASignatureMessagePKCS1v15SHA1,
    &::kSecKeyAlgorithmRSASignatureMessagePKCS1v15SHA224,
    &::kSecKeyAlgorithmRSASignatureMessagePKCS1v15SHA256,
    &::kSecKeyAlgorithmRSASignatureMessagePKCS1v15SHA384,
    &::kSecKeyAlgorithmRSASignatureMessagePKCS1v15SHA512,
    &::kSecKeyAlgorithmRSASignatureDigestPSSSHA1,
    &::kSecKeyAlgorithmRSASignatureDigestPSSSHA224,
    &::kSecKeyAlgorithmRSASignatureDigestPSSSHA256,
    &::kSecKeyAlgorithmRSASignatureDigestPSSSHA384,
    &::kSecKeyAlgorithmRSASignatureDigestPSSSHA512,
    &::kSecKeyAlgorithmRSASignatureMessagePSSSHA1,
    &::kSecKeyAlgorithmRSASignatureMessagePSSSHA224,
    &::kSecKeyAlgorithmRSASignatureMessagePSSSHA256,
    &::kSecKeyAlgorithmRSASignatureMessagePSSSHA384,
    &::kSecKeyAlgorithmRSASignatureMessagePSSSHA512,
    &::kSecKeyAlgorithmECDSASignatureRFC4754,
    &::kSecKeyAlgorithmECDSASignatureDigestX962,
    &::kSecKeyAlgorithmECDSASignatureDigestX962SHA1,
    &::kSecKeyAlgorithmECDSASignatureDigestX962SHA224,
    &::kSecKeyAlgorithmECDSASignatureDigestX962SHA256,
    &::kSecKeyAlgorithmECDSASignatureDigestX962SHA384,
    &::kSecKeyAlgorithmECDSASignatureDigestX962SHA512,
    &::kSecKeyAlgorithmECDSASignatureMessageX962SHA1,
    &::kSecKeyAlgorithmECDSASignatureMessageX962SHA224,
    &::kSecKeyAlgorithmECDSASignatureMessageX962SHA256,
    &::kSecKeyAlgorithmECDSASignatureMessageX962SHA384,
    &::kSecKeyAlgorithmECDSASignatureMessageX962SHA512,
    &::kSecKeyAlgorithmRSAEncryptionPKCS1,
    &::kSecKeyAlgorithmRSAEncryptionOAEPSHA1,
    &::kSecKeyAlgorithmRSAEncryptionOAEPSHA224,
    &::kSecKeyAlgorithmRSAEncryptionOAEPSHA256,
    &::kSecKeyAlgorithmRSAEncryptionOAEPSHA384,
    &::kSecKeyAlgorithmRSAEncryptionOAEPSHA512,
    &::kSecKeyAlgorithmRSAEncryptionOAEPSHA1AESGCM,
    &::kSecKeyAlgorithmRSAEncryptionOAEPSHA224AESGCM,
    &::kSecKeyAlgorithmRSAEncryptionOAEPSHA256AESGCM,
    &::kSecKeyAlgorithmRSAEncryptionOAEPSHA384AESGCM,
    &::kSecKeyAlgorithmRSAEncryptionOAEPSHA512AESGCM,
    &::kSecKeyAlgorithmECIESEncryptionStandardX963SHA1AESGCM,
    &::kSecKeyAlgorithmECIESEncryptionStandardX963SHA224AESGCM,
    &::kSecKeyAlgorithmECIESEncryptionStandardX963SHA256AESGCM,
    &::kSecKeyAlgorithmECIESEncryptionStandardX963SHA384AESGCM,
    &::kSecKeyAlgorithmECIESEncryptionStandardX963SHA512AESGCM,
    &::kSecKeyAlgorithmECIESEncryptionCofactorX963SHA1AESGCM,
    &::kSecKeyAlgorithmECIESEncryptionCofactorX963SHA224AESGCM,
    &::kSecKeyAlgorithmECIESEncryptionCofactorX963SHA256AESGCM,
    &::kSecKeyAlgorithmECIESEncryptionCofactorX963SHA384AESGCM,
    &::kSecKeyAlgorithmECIESEncryptionCofactorX963SHA512AESGCM,
    &::kSecKeyAlgorithmECIESEncryptionStandardVariableIVX963SHA224AESGCM,
    &::kSecKeyAlgorithmECIESEncryptionStandardVariableIVX963SHA256AESGCM,
    &::kSecKeyAlgorithmECIESEncryptionStandardVariableIVX963SHA384AESGCM,
    &::kSecKeyAlgorithmECIESEncryptionStandardVariableIVX963SHA512AESGCM,
    &::kSecKeyAlgorithmECIESEncryptionCofactorVariableIVX963SHA224AESGCM,
    &::kSecKeyAlgorithmECIESEncryptionCofactorVariableIVX963SHA256AESGCM,
    &::kSecKeyAlgorithmECIESEncryptionCofactorVariableIVX963SHA384AESGCM,
    &::kSecKeyAlgorithmECIESEncryptionCofactorVariableIVX963SHA512AESGCM,
    &::kSecKeyAlgorithmECDHKeyExchangeStandard,
    &::kSecKeyAlgorithmECDHKeyExchangeStandardX963SHA1,
    &::kSecKeyAlgorithmECDHKeyExchangeStandardX963SHA224,
    &::kSecKeyAlgorithmECDHKeyExchangeStandardX963SHA256,
    &::kSecKeyAlgorithmECDHKeyExchangeStandardX963SHA384,
    &::kSecKeyAlgorithmECDHKeyExchangeStandardX963SHA512,
    &::kSecKeyAlgorithmECDHKeyExchangeCofactor,
    &::kSecKeyAlgorithmECDHKeyExchangeCofactorX963SHA1,
    &::kSecKeyAlgorithmECDHKeyExchangeCofactorX963SHA224,
    &::kSecKeyAlgorithmECDHKeyExchangeCofactorX963SHA256,
    &::kSecKeyAlgorithmECDHKeyExchangeCofactorX963SHA384,
    &::kSecKeyAlgorithmECDHKeyExchangeCofactorX963SHA512,
};
static_assert(kConstants.size() == std::tuple_size_v<decltype(kSecKeyAlgorithms)>);

/// What all wrappers do: share their object.
template <typename Base, typename Object>
class Wrapper : public Base {
 public:
  explicit Wrapper(ObjCHolder<Object> object) noexcept : object_{std::move(object)} {}
  [[nodiscard]] void* platformObject() const noexcept override { return (void*)object_.get(); }

 protected:
  [[nodiscard]] Object* object() const noexcept { return object_.get(); }
  void replaceObject(Object* initialised) noexcept {
    (void)object_.take();
    object_ = ObjCHolder<Object>::adopt(initialised);
  }

 private:
  ObjCHolder<Object> object_;
};

class SlotWrapper final : public Wrapper<TKSmartCardSlot, ::TKSmartCardSlot> {
 public:
  using Wrapper::Wrapper;
  [[nodiscard]] Text name() const noexcept override { return textOf([object() name]); }
};

class CardWrapper final : public Wrapper<TKSmartCard, ::TKSmartCard> {
 public:
  using Wrapper::Wrapper;
  [[nodiscard]] std::shared_ptr<TKSmartCardSlot> slot() const noexcept override {
    return std::make_shared<SlotWrapper>(ObjCHolder<::TKSmartCardSlot>::retain([object() slot]));
  }
  [[nodiscard]] std::uint8_t cla() const noexcept override { return [object() cla]; }
  [[nodiscard]] bool sensitive() const noexcept override { return [object() sensitive]; }
  void setSensitive(bool value) noexcept override { [object() setSensitive:value ? YES : NO]; }
  [[nodiscard]] std::optional<bool> context() const noexcept override {
    const id context = [object() context];
    if (!context) return std::nullopt;
    return ![context isKindOfClass:[NSNumber class]] || [static_cast<NSNumber*>(context) boolValue];
  }
  void setContext(std::optional<bool> value) noexcept override {
    [object() setContext:value ? (*value ? @YES : @NO) : nil];
  }
};

class DriverWrapper final : public Wrapper<TKSmartCardTokenDriver, ::TKSmartCardTokenDriver> {
 public:
  using Wrapper::Wrapper;
};

class AlgorithmWrapper final : public Wrapper<TKTokenKeyAlgorithm, ::TKTokenKeyAlgorithm> {
 public:
  using Wrapper::Wrapper;
  [[nodiscard]] bool isAlgorithm(SecKeyAlgorithm algorithm) const noexcept override {
    return [object() isAlgorithm:constantOf(algorithm)];
  }
};

class ParametersWrapper final : public Wrapper<TKTokenKeyExchangeParameters, ::TKTokenKeyExchangeParameters> {
 public:
  using Wrapper::Wrapper;
};

class PINFormatWrapper final : public Wrapper<TKSmartCardPINFormat, ::TKSmartCardPINFormat> {
 public:
  using Wrapper::Wrapper;
  [[nodiscard]] TKSmartCardPINCharset charset() const noexcept override {
    return static_cast<TKSmartCardPINCharset>([object() charset]);
  }
  [[nodiscard]] TKSmartCardPINEncoding encoding() const noexcept override {
    return static_cast<TKSmartCardPINEncoding>([object() encoding]);
  }
  [[nodiscard]] int minPINLength() const noexcept override {
    return static_cast<int>([object() minPINLength]);
  }
  [[nodiscard]] int maxPINLength() const noexcept override {
    return static_cast<int>([object() maxPINLength]);
  }
  [[nodiscard]] int PINBlockByteLength() const noexcept override {
    return static_cast<int>([object() PINBlockByteLength]);
  }
  [[nodiscard]] TKSmartCardPINJustification PINJustification() const noexcept override {
    return static_cast<TKSmartCardPINJustification>([object() PINJustification]);
  }
  [[nodiscard]] int PINBitOffset() const noexcept override {
    return static_cast<int>([object() PINBitOffset]);
  }
  void setPINBitOffset(int value) noexcept override { [object() setPINBitOffset:value]; }
  [[nodiscard]] int PINLengthBitOffset() const noexcept override {
    return static_cast<int>([object() PINLengthBitOffset]);
  }
  [[nodiscard]] int PINLengthBitSize() const noexcept override {
    return static_cast<int>([object() PINLengthBitSize]);
  }
};

class CertificateItem final : public Wrapper<TKTokenKeychainCertificate, ::TKTokenKeychainCertificate> {
 public:
  using Wrapper::Wrapper;
  [[nodiscard]] bool initWithCertificate(const std::shared_ptr<SecCertificate>& certificate,
                                         const Text& objectID) noexcept override {
    // The initialiser consumes the reference, and gives another one or nil.
    ::TKTokenKeychainCertificate* initialised = [object() initWithCertificate:refOf(*certificate)
                                                                     objectID:stringOf(objectID)];
    replaceObject(initialised);
    if (initialised) certificate_ = certificate;
    return initialised != nil;
  }
  [[nodiscard]] std::shared_ptr<SecCertificate> certificate() const noexcept override { return certificate_; }
  [[nodiscard]] Text objectID() const noexcept override { return textOfObject([object() objectID]); }
  [[nodiscard]] Text label() const noexcept override { return textOf([object() label]); }
  void setLabel(const Text& label) noexcept override { [object() setLabel:stringOf(label)]; }
  /// The platform's own, which say more than the core can.
  [[nodiscard]] std::optional<TKTokenConstraints> constraints() const noexcept override {
    return std::nullopt;
  }
  void setConstraints(const TKTokenConstraints& constraints) noexcept override {
    [object() setConstraints:dictionaryOf(constraints)];
  }

 private:
  std::shared_ptr<SecCertificate> certificate_;
};

template <typename Wrapped, typename Object>
std::shared_ptr<Wrapped> wrappedAs(Object* object) noexcept {
  return object ? std::make_shared<Wrapped>(ObjCHolder<Object>::retain(object)) : nullptr;
}

}  // namespace

std::shared_ptr<TKSmartCard> wrapped(::TKSmartCard* card) noexcept { return wrappedAs<CardWrapper>(card); }

std::shared_ptr<TKSmartCardTokenDriver> wrapped(::TKSmartCardTokenDriver* driver) noexcept {
  return wrappedAs<DriverWrapper>(driver);
}

std::shared_ptr<TKTokenKeyAlgorithm> wrapped(::TKTokenKeyAlgorithm* algorithm) noexcept {
  return wrappedAs<AlgorithmWrapper>(algorithm);
}

std::shared_ptr<TKTokenKeyExchangeParameters> wrapped(::TKTokenKeyExchangeParameters* parameters) noexcept {
  return wrappedAs<ParametersWrapper>(parameters);
}

std::shared_ptr<TKSmartCardPINFormat> wrapped(::TKSmartCardPINFormat* format) noexcept {
  return wrappedAs<PINFormatWrapper>(format);
}

std::shared_ptr<TKTokenKeychainCertificate> allocatedKeychainCertificate() noexcept {
  return std::make_shared<CertificateItem>(
      ObjCHolder<::TKTokenKeychainCertificate>::adopt([::TKTokenKeychainCertificate alloc]));
}

std::shared_ptr<TKSmartCardPINFormat> newPINFormat() noexcept {
  return std::make_shared<PINFormatWrapper>(
      ObjCHolder<::TKSmartCardPINFormat>::adopt([[::TKSmartCardPINFormat alloc] init]));
}

id objectBehind(const std::shared_ptr<TKTokenObject>& object) noexcept {
  return object ? (id)object->platformObject() : nil;
}

NSDictionary* dictionaryOf(const TKTokenConstraints& constraints) noexcept {
  NSMutableDictionary* dictionary = [NSMutableDictionary dictionary];
  for (const auto& [operation, constraint] : constraints) {
    [dictionary setObject:stringOf(constraint) forKey:@(static_cast<NSInteger>(operation))];
  }
  return dictionary;
}

::SecKeyAlgorithm constantOf(SecKeyAlgorithm algorithm) noexcept {
  return *kConstants[static_cast<std::size_t>(algorithm)];
}

}  // namespace mirel
