#import "Ports.h"

#include <array>

#import "Algorithms.h"
#import "Certificate.h"
#import "Convert.h"
#import "Errors.h"
#import "Guard.h"
#import "MirelCTKTokenKeychainKey.h"

namespace mirel {
namespace {

/// From boxed operation to constraint.
NSDictionary* dictionaryOf(const TKTokenConstraints& constraints) {
  NSMutableDictionary* dictionary = [NSMutableDictionary dictionary];
  for (const auto& [operation, constraint] : constraints) {
    [dictionary setObject:stringOf(constraint) forKey:@(static_cast<NSInteger>(operation))];
  }
  return dictionary;
}

::TKSmartCard* smartCardOf(::TKSmartCardTokenSession* session) noexcept {
  return guarded("the session has no connection to the card", [&] { return [session smartCard]; });
}

}  // namespace

// ---- Card ----

Text CardPort::name() const noexcept {
  return textOf(guarded("the reader's name is not known", [&] { return [[object() slot] name]; }));
}

std::uint8_t CardPort::cla() const noexcept {
  return guarded("the class of the card's commands is not known", [&] { return [object() cla]; });
}

void CardPort::setSensitive(bool value) noexcept {
  guarded("the card is not marked as sensitive", [&] { [object() setSensitive:value ? YES : NO]; });
}

bool CardPort::hasContext() const noexcept {
  return guarded("the mark on the card is not known", [&] { return [object() context] != nil; });
}

void CardPort::setContext(bool value) noexcept {
  guarded("the card is not marked as in use", [&] { [object() setContext:value ? @YES : @NO]; });
}

// ---- Keychain contents ----

void ContentsPort::append(const TKTokenKeychainCertificate& item) noexcept {
  const auto made = guarded("the certificate is not published", [&] {
    return ObjCHolder<::TKTokenKeychainCertificate>::adopt([[::TKTokenKeychainCertificate alloc]
        initWithCertificate:refOf(*item.certificate)
                   objectID:stringOf(item.objectID)]);
  });
  if (!made.get()) return;
  guarded("a certificate has no label", [&] { [made.get() setLabel:stringOf(item.label)]; });
  items_.push_back(ObjCHolder<::TKTokenKeychainItem>::retain(made.get()));
}

bool ContentsPort::initKey(const MirelCTKTokenKeychainKey& item) noexcept {
  key_ = ObjCHolder<::MirelCTKTokenKeychainKey>::adopt([[::MirelCTKTokenKeychainKey alloc]
      initWithCertificate:refOf(*item.certificate)
                 objectID:stringOf(item.objectID)
            certificateID:stringOf(item.certificateID)
       alwaysAuthenticate:item.alwaysAuthenticate ? YES : NO]);
  return key_.get() != nil;
}

void ContentsPort::append(const MirelCTKTokenKeychainKey& item) noexcept {
  ::MirelCTKTokenKeychainKey* const key = key_.get();
  guarded("a key cannot do what its certificate allows", [&] {
    if (item.canSign) [key setCanSign:YES];
    if (item.canDecrypt) [key setCanDecrypt:YES];
    if (item.canPerformKeyExchange) [key setCanPerformKeyExchange:YES];
  });
  if (item.suitableForLogin) {
    guarded("a key is not suitable for login", [&] { [key setSuitableForLogin:YES]; });
  }
  guarded("a key has no label", [&] { [key setLabel:stringOf(item.label)]; });
  guarded("a key has no constraints", [&] { [key setConstraints:dictionaryOf(item.constraints)]; });
  items_.push_back(ObjCHolder<::TKTokenKeychainItem>::retain(key));
}

void ContentsPort::fillWithItems() noexcept {
  guarded("the card's items are not published", [&] {
    NSMutableArray* items = [NSMutableArray array];
    for (const auto& item : items_) [items addObject:item.get()];
    [[token_ keychainContents] fillWithItems:items];
  });
}

// ---- Session ----

TKSmartCard& SessionPort::smartCard() noexcept { return card_.emplace(smartCardOf(session_)); }

std::optional<MirelCTKTokenKeychainKey> SessionPort::keyForObjectID(const Text& objectID,
                                                                    TKErrorPointer outError) noexcept {
  found_ = {};
  // The platform takes no nil; no key has an identifier that is no text.
  NSString* const name = stringOf(objectID.isNull() ? Text{u""} : objectID);
  if (!name) return std::nullopt;
  {
    ErrorPlace place{outError};
    found_ = guarded("a key is not found", [&] {
      return ObjCHolder<::TKTokenKeychainKey>::retain(
          [[[session_ token] keychainContents] keyForObjectID:name error:place.pointer()]);
    });
  }
  ::TKTokenKeychainKey* const found = found_.get();
  if (!found) return std::nullopt;
  MirelCTKTokenKeychainKey key;
  key.objectID = objectID;
  const auto abilities = guarded("a key can do nothing", [&] {
    return std::array<bool, 3>{
        [found canSign] != NO, [found canDecrypt] != NO, [found canPerformKeyExchange] != NO};
  });
  key.canSign = abilities[0];
  key.canDecrypt = abilities[1];
  key.canPerformKeyExchange = abilities[2];
  // Nothing says that the platform hands out the very objects that it was filled with.
  if ([found isKindOfClass:[::MirelCTKTokenKeychainKey class]]) {
    key.alwaysAuthenticate = [static_cast<::MirelCTKTokenKeychainKey*>(found) alwaysAuthenticate];
  }
  return key;
}

// ---- PIN ----

TKSmartCard& PINRequestPort::sessionSmartCard() noexcept {
  return sessionCard_.emplace(smartCardOf(session_));
}

TKSmartCard& PINRequestPort::smartCard() noexcept {
  return card_.emplace(
      guarded("the PIN request has no connection to the card", [&] { return [operation_ smartCard]; }));
}

void PINRequestPort::setSmartCard(const TKSmartCard& card) noexcept {
  guarded("the PIN request has no card",
          [&] { [operation_ setSmartCard:static_cast<const CardPort&>(card).object()]; });
}

void PINRequestPort::setAPDUTemplate(const Bytes& command) noexcept {
  guarded("the PIN request has no command", [&] { [operation_ setAPDUTemplate:dataOf(command)]; });
}

void PINRequestPort::setPINFormat(int PINBitOffset) noexcept {
  guarded("the PIN request has no format of its own", [&] {
    const auto format = ObjCHolder<::TKSmartCardPINFormat>::adopt([[::TKSmartCardPINFormat alloc] init]);
    [operation_ setPINFormat:format.get()];
    [format.get() setPINBitOffset:PINBitOffset];
  });
}

std::shared_ptr<const SecretText> PINRequestPort::PIN() noexcept {
  return secretOf(guarded("there is no PIN", [&] { return [operation_ PIN]; }));
}

void PINRequestPort::clearPIN() noexcept {
  guarded("the PIN request keeps the PIN", [&] { [operation_ setPIN:nil]; });
}

// ---- Algorithm ----

bool AlgorithmPort::isAlgorithm(SecKeyAlgorithm algorithm) const noexcept {
  if (hasRaised_) return false;
  const auto answer = guarded("an algorithm is not recognised", [&] {
    return std::optional{[algorithm_ isAlgorithm:constantOf(algorithm)] != NO};
  });
  hasRaised_ = !answer;
  return answer.value_or(false);
}

Text AlgorithmPort::description() const noexcept { return descriptionOf(algorithm_); }

}  // namespace mirel
