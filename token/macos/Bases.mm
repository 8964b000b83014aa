#import "Bases.h"

#import "Certificate.h"
#import "Convert.h"
#import "Errors.h"
#import "Guard.h"
#import "Holder.h"
#import "MirelCTKTokenKeychainKey.h"
#import "MirelSCToken.h"
#import "MirelSCTokenAuth.h"
#import "MirelSCTokenSession.h"
#import "TokenObjects.h"

#include <type_traits>

#include "KeychainKey.h"
#include "token/MirelCTKTokenKeychainKey.h"
#include "token/MirelSCToken.h"
#include "token/MirelSCTokenAuth.h"
#include "token/MirelSCTokenDriver.h"
#include "token/MirelSCTokenSession.h"

namespace mirel {
namespace {

/// What all bases do.
template <typename Interface, typename Object>
class Base : public Interface {
 public:
  explicit Base(std::shared_ptr<Link> link) noexcept : link_{std::move(link)} {}
  [[nodiscard]] void* platformObject() const noexcept override { return (void*)link_->object; }
  [[nodiscard]] Text description() const noexcept override { return descriptionOf(link_->object); }

 protected:
  [[nodiscard]] Object* object() const noexcept { return static_cast<Object*>(link_->object); }

  /// Runs a base initialiser. One that gives nil has let go of the object; of one that raises nobody knows
  /// what it has left, so the object is not touched again.
  template <typename Initialiser>
  bool initialised(Initialiser&& initialiser) noexcept {
    Object* object = nil;
    guard("the object is not made", [&] { object = initialiser(); });
    link_->object = object;
    return object != nil;
  }

 private:
  std::shared_ptr<Link> link_;
};

class KeychainContents final : public TKTokenKeychainContents {
 public:
  explicit KeychainContents(ObjCHolder<::TKTokenKeychainContents> contents) noexcept
      : contents_{std::move(contents)} {}

  void fillWithItems(const std::vector<std::shared_ptr<TKTokenKeychainItem>>& items) noexcept override {
    NSMutableArray* objects = [NSMutableArray array];
    for (const auto& item : items) {
      if (const id object = objectBehind(item)) [objects addObject:object];
    }
    guard("the card's items are not published", [&] { [contents_.get() fillWithItems:objects]; });
  }

  [[nodiscard]] std::vector<std::shared_ptr<TKTokenKeychainItem>> items() const noexcept override {
    std::vector<std::shared_ptr<TKTokenKeychainItem>> items;
    for (::TKTokenKeychainItem* item in [contents_.get() items]) {
      if (auto key = keyOf(item)) items.push_back(std::move(key));
    }
    return items;
  }

  [[nodiscard]] std::shared_ptr<TKTokenKeychainKey> keyForObjectID(
      const Text& objectID, TKErrorPointer outError) noexcept override {
    // The platform takes no nil; no key has an identifier that is no text.
    ErrorPlace place{outError};
    ::TKTokenKeychainKey* key = nil;
    guard("a key is not found", [&] {
      key = [contents_.get() keyForObjectID:stringOf(objectID.isNull() ? Text{u""} : objectID)
                                      error:place.pointer()];
    });
    return keyOf(key);
  }

 private:
  static std::shared_ptr<TKTokenKeychainKey> keyOf(::TKTokenKeychainItem* item) noexcept {
    if ([item isKindOfClass:[::MirelCTKTokenKeychainKey class]]) {
      return [static_cast<::MirelCTKTokenKeychainKey*>(item) mirel_core];
    }
    // Nothing says that the platform hands out the very objects that it was filled with.
    const bool isKey = [item isKindOfClass:[::TKTokenKeychainKey class]];
    return isKey ? wrapped(static_cast<::TKTokenKeychainKey*>(item)) : nullptr;
  }

  ObjCHolder<::TKTokenKeychainContents> contents_;
};

class TokenBase final : public Base<TKSmartCardToken, ::MirelSCToken> {
 public:
  using Base::Base;
  [[nodiscard]] bool initWithSmartCard(
      const std::shared_ptr<TKSmartCard>& smartCard, const Bytes& AID, const Text& instanceID,
      const std::shared_ptr<TKSmartCardTokenDriver>& tokenDriver) noexcept override {
    return initialised([&] {
      return [object() mirel_baseInitWithSmartCard:objectBehind(smartCard)
                                               AID:dataOf(AID)
                                        instanceID:stringOf(instanceID)
                                       tokenDriver:objectBehind(tokenDriver)];
    });
  }
  [[nodiscard]] std::shared_ptr<TKTokenKeychainContents> keychainContents() const noexcept override {
    ::TKTokenKeychainContents* contents = [object() keychainContents];
    if (!contents) return nullptr;
    return std::make_shared<KeychainContents>(ObjCHolder<::TKTokenKeychainContents>::retain(contents));
  }
};

class SessionBase final : public Base<TKSmartCardTokenSession, ::MirelSCTokenSession> {
 public:
  using Base::Base;
  [[nodiscard]] bool initWithToken(const std::shared_ptr<TKSmartCardToken>& token) noexcept override {
    return initialised([&] { return [object() mirel_baseInitWithToken:objectBehind(token)]; });
  }
  [[nodiscard]] std::shared_ptr<TKSmartCardToken> token() const noexcept override {
    return coreOf([object() token]);
  }
  [[nodiscard]] std::shared_ptr<TKSmartCard> smartCard() const noexcept override {
    return wrapped([object() smartCard]);
  }
};

class PINOperationBase final : public Base<TKTokenSmartCardPINAuthOperation, ::MirelSCTokenAuth> {
 public:
  using Base::Base;
  [[nodiscard]] bool init() noexcept override {
    return initialised([&] { return [object() mirel_baseInit]; });
  }
  /// The core never asks its base for this.
  [[nodiscard]] bool finishWithError(TKErrorPointer) noexcept override { return false; }
  [[nodiscard]] std::shared_ptr<TKSmartCard> smartCard() const noexcept override {
    return wrapped([object() smartCard]);
  }
  void setSmartCard(const std::shared_ptr<TKSmartCard>& card) noexcept override {
    [object() setSmartCard:objectBehind(card)];
  }
  [[nodiscard]] Bytes APDUTemplate() const noexcept override { return bytesOf([object() APDUTemplate]); }
  void setAPDUTemplate(const Bytes& command) noexcept override { [object() setAPDUTemplate:dataOf(command)]; }
  [[nodiscard]] std::shared_ptr<TKSmartCardPINFormat> PINFormat() const noexcept override {
    return wrapped([object() PINFormat]);
  }
  void setPINFormat(const std::shared_ptr<TKSmartCardPINFormat>& format) noexcept override {
    [object() setPINFormat:objectBehind(format)];
  }
  [[nodiscard]] std::shared_ptr<const SecretText> PIN() const noexcept override {
    return secretOf([object() PIN]);
  }
  /// Only ever to nothing: the platform fills the PIN in.
  void setPIN(const std::shared_ptr<const SecretText>&) noexcept override { [object() setPIN:nil]; }
};

class KeyBase : public Base<TKTokenKeychainKey, ::MirelCTKTokenKeychainKey> {
 public:
  using Base::Base;
  [[nodiscard]] bool initWithCertificate(const std::shared_ptr<SecCertificate>& certificate,
                                         const Text& objectID) noexcept override {
    return initialised([&] {
      return [object() mirel_baseInitWithCertificate:certificate ? refOf(*certificate) : nullptr
                                            objectID:stringOf(objectID)];
    });
  }
};

template <typename BaseClass, typename Object>
std::shared_ptr<BaseClass> baseOn(Object* object) noexcept {
  auto link = std::make_shared<Link>(Link{object});
  [object mirel_setLink:link];
  return std::make_shared<BaseClass>(std::move(link));
}

/// The core of a new object, which goes with the autorelease pool; null for nil.
template <typename Object>
auto coreOfNew(Object* object) noexcept {
  std::remove_cvref_t<decltype([object mirel_core])> core;
  if (object) core = [ObjCHolder<Object>::adopt(object).autoreleased() mirel_core];
  return core;
}

/// Makes the objects as the platform would: by their Objective-C initialisers. The services are those of the
/// extension, whatever is given.
class ExtensionTokenKit final : public TokenKit {
 public:
  [[nodiscard]] std::shared_ptr<TKSmartCardToken> newToken(
      const PlatformServices&, const std::shared_ptr<TKSmartCard>& smartCard, const Bytes& AID,
      const std::shared_ptr<TKSmartCardTokenDriver>& driver, TKErrorPointer outError) noexcept override {
    ErrorPlace place{outError};
    return coreOfNew([[::MirelSCToken alloc] initWithSmartCard:objectBehind(smartCard)
                                                           AID:dataOf(AID)
                                            MirelSCTokenDriver:objectBehind(driver)
                                                         error:place.pointer()]);
  }
  [[nodiscard]] std::shared_ptr<TKSmartCardTokenSession> newTokenSession(
      const PlatformServices&, const std::shared_ptr<TKSmartCardToken>& token) noexcept override {
    return coreOfNew([[::MirelSCTokenSession alloc] initWithToken:objectBehind(token)]);
  }
  [[nodiscard]] std::shared_ptr<TKTokenSmartCardPINAuthOperation> newPINAuthOperation(
      const PlatformServices&, const std::shared_ptr<TKSmartCardTokenSession>& session) noexcept override {
    return coreOfNew([[::MirelSCTokenAuth alloc] initWithSession:objectBehind(session)]);
  }
  [[nodiscard]] std::shared_ptr<TKTokenKeychainKey> newKeychainKey(
      const PlatformServices&, const std::shared_ptr<SecCertificate>& certificate, const Text& objectID,
      const Text& certificateID, bool alwaysAuthenticate) noexcept override {
    return coreOfNew([[::MirelCTKTokenKeychainKey alloc]
        initWithCertificate:certificate ? refOf(*certificate) : nullptr
                   objectID:stringOf(objectID)
              certificateID:stringOf(certificateID)
         alwaysAuthenticate:alwaysAuthenticate ? YES : NO]);
  }
  [[nodiscard]] std::shared_ptr<TKTokenKeychainCertificate> allocKeychainCertificate() noexcept override {
    return allocatedKeychainCertificate();
  }
  [[nodiscard]] std::shared_ptr<TKSmartCardPINFormat> allocPINFormat() noexcept override {
    return newPINFormat();
  }
};

/// A token of somebody else, which is there to be printed.
class ForeignToken final : public TKSmartCardToken {
 public:
  explicit ForeignToken(Text description) noexcept : description_{std::move(description)} {}
  [[nodiscard]] Text description() const noexcept override { return description_; }
  [[nodiscard]] bool initWithSmartCard(const std::shared_ptr<TKSmartCard>&, const Bytes&, const Text&,
                                       const std::shared_ptr<TKSmartCardTokenDriver>&) noexcept override {
    return false;
  }
  [[nodiscard]] std::shared_ptr<TKTokenKeychainContents> keychainContents() const noexcept override {
    return nullptr;
  }

 private:
  Text description_;
};

}  // namespace

PlatformServices newExtensionServices() noexcept {
  PlatformServices services = systemServices();
  services.tokenKit = std::make_shared<ExtensionTokenKit>();
  return services;
}

std::shared_ptr<MirelSCTokenDriver> newDriverCore() noexcept {
  return std::make_shared<MirelSCTokenDriver>(extensionServices());
}

std::shared_ptr<TKSmartCardToken> baseOf(::MirelSCToken* token) noexcept { return baseOn<TokenBase>(token); }
std::shared_ptr<TKSmartCardTokenSession> baseOf(::MirelSCTokenSession* session) noexcept {
  return baseOn<SessionBase>(session);
}
std::shared_ptr<TKTokenSmartCardPINAuthOperation> baseOf(::MirelSCTokenAuth* operation) noexcept {
  return baseOn<PINOperationBase>(operation);
}
std::shared_ptr<TKTokenKeychainKey> baseOf(::MirelCTKTokenKeychainKey* key) noexcept {
  return baseOn<KeychainKey<KeyBase>>(key);
}

std::shared_ptr<TKSmartCardToken> wrapped(::TKToken* token) noexcept {
  if (!token) return nullptr;
  if (auto core = coreOf(token)) return core;
  return std::make_shared<ForeignToken>(descriptionOf(token));
}

std::shared_ptr<MirelSCToken> coreOf(::TKToken* token) noexcept {
  if (![token isKindOfClass:[::MirelSCToken class]]) return nullptr;
  return [static_cast<::MirelSCToken*>(token) mirel_core];
}

}  // namespace mirel
