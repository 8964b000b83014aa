#include "TokenObjects.h"

#include "Algorithms.h"
#include "Certificate.h"
#include "Convert.h"
#include "Guard.h"
#include "Holder.h"
#include "KeychainKey.h"

namespace mirel {
namespace {

/// What all wrappers do: share their object.
template <typename Base, typename Object>
class Wrapper : public Base {
 public:
  explicit Wrapper(ObjCHolder<Object> object) noexcept : object_{std::move(object)} {}
  [[nodiscard]] void* platformObject() const noexcept override { return (void*)object_.get(); }
  [[nodiscard]] Text description() const noexcept override { return descriptionOf(object_.get()); }

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
    // The initialiser consumes the reference, and gives another one or nil. Of one that raises nobody knows
    // what it has left.
    ::TKTokenKeychainCertificate* initialised = nil;
    guard("the certificate is not published", [&] {
      initialised = [object() initWithCertificate:refOf(*certificate) objectID:stringOf(objectID)];
    });
    replaceObject(initialised);
    if (initialised) certificate_ = certificate;
    return initialised != nil;
  }
  [[nodiscard]] std::shared_ptr<SecCertificate> certificate() const noexcept override { return certificate_; }
  [[nodiscard]] Text objectID() const noexcept override { return textOfObject([object() objectID]); }
  [[nodiscard]] Text label() const noexcept override { return textOf([object() label]); }
  void setLabel(const Text& label) noexcept override {
    guard("a certificate has no label", [&] { [object() setLabel:stringOf(label)]; });
  }
  /// The platform's own, which say more than the core can.
  [[nodiscard]] std::optional<TKTokenConstraints> constraints() const noexcept override {
    return std::nullopt;
  }
  void setConstraints(const TKTokenConstraints& constraints) noexcept override {
    guard("a certificate has no constraints", [&] { [object() setConstraints:dictionaryOf(constraints)]; });
  }

 private:
  std::shared_ptr<SecCertificate> certificate_;
};

class KeyItem : public Wrapper<TKTokenKeychainKey, ::TKTokenKeychainKey> {
 public:
  using Wrapper::Wrapper;
  [[nodiscard]] bool initWithCertificate(const std::shared_ptr<SecCertificate>&,
                                         const Text&) noexcept override {
    return false;
  }
};

template <typename Wrapped, typename Object>
std::shared_ptr<Wrapped> wrappedAs(Object* object) noexcept {
  return object ? std::make_shared<Wrapped>(ObjCHolder<Object>::retain(object)) : nullptr;
}

}  // namespace

Text descriptionOf(id object) noexcept {
  @autoreleasepool {
    return textOf([object description]).orNullMark();
  }
}

std::shared_ptr<TKSmartCard> wrapped(::TKSmartCard* card) noexcept { return wrappedAs<CardWrapper>(card); }

std::shared_ptr<TKSmartCardTokenDriver> wrapped(::TKSmartCardTokenDriver* driver) noexcept {
  return wrappedAs<DriverWrapper>(driver);
}

std::shared_ptr<TKTokenKeyAlgorithm> wrapped(::TKTokenKeyAlgorithm* algorithm) noexcept {
  return std::make_shared<AlgorithmWrapper>(ObjCHolder<::TKTokenKeyAlgorithm>::retain(algorithm));
}

std::shared_ptr<TKTokenKeyExchangeParameters> wrapped(::TKTokenKeyExchangeParameters* parameters) noexcept {
  return wrappedAs<ParametersWrapper>(parameters);
}

std::shared_ptr<TKSmartCardPINFormat> wrapped(::TKSmartCardPINFormat* format) noexcept {
  return wrappedAs<PINFormatWrapper>(format);
}

std::shared_ptr<TKTokenKeychainKey> wrapped(::TKTokenKeychainKey* key) noexcept {
  return wrappedAs<KeychainKey<KeyItem>>(key);
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

}  // namespace mirel
