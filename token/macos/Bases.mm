#import "Bases.h"

#import "Certificate.h"
#import "Convert.h"
#import "Holder.h"
#import "MirelCTKTokenKeychainKey.h"
#import "MirelSCToken.h"
#import "MirelSCTokenAuth.h"
#import "MirelSCTokenSession.h"
#import "TokenObjects.h"

#include <optional>

#include "token/MirelCTKTokenKeychainKey.h"
#include "token/MirelSCToken.h"
#include "token/MirelSCTokenAuth.h"
#include "token/MirelSCTokenSession.h"

namespace mirel {
namespace {

/// What all bases do.
template <typename Interface, typename Object>
class Base : public Interface {
 public:
  explicit Base(std::shared_ptr<Link> link) noexcept : link_{std::move(link)} {}
  ~Base() override {
    if (link_->ownedByBase) (void)ObjCHolder<Object>::adopt(object());
  }
  [[nodiscard]] void* platformObject() const noexcept override { return (void*)link_->object; }

 protected:
  [[nodiscard]] Object* object() const noexcept { return static_cast<Object*>(link_->object); }

  /// What a base initialiser gave. One that fails has let go of the object.
  bool initialised(Object* object) noexcept {
    link_->object = object;
    if (!object) link_->ownedByBase = false;
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
      if (const id object = published(item)) [objects addObject:object];
    }
    [contents_.get() fillWithItems:objects];
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
    NSError* error = nil;
    ::TKTokenKeychainKey* key = [contents_.get() keyForObjectID:stringOf(objectID) error:&error];
    if (!key && outError && error) *outError = tkErrorOf(error);
    return keyOf(key);
  }

 private:
  /// The object of an item, which from now on owns the item.
  static id published(const std::shared_ptr<TKTokenKeychainItem>& item) noexcept {
    const id object = objectBehind(item);
    if (const auto key = std::dynamic_pointer_cast<MirelCTKTokenKeychainKey>(item)) {
      auto* const ours = static_cast<::MirelCTKTokenKeychainKey*>(object);
      if ([ours core] == key) return object;  // it owns the item already
      [ours adoptCore:key];
      return [object autorelease];
    }
    return object;
  }
  static std::shared_ptr<TKTokenKeychainKey> keyOf(::TKTokenKeychainItem* item) noexcept {
    if (![item isKindOfClass:[::MirelCTKTokenKeychainKey class]]) return nullptr;
    return [static_cast<::MirelCTKTokenKeychainKey*>(item) core];
  }

  ObjCHolder<::TKTokenKeychainContents> contents_;
};

class TokenBase final : public Base<TKSmartCardToken, ::MirelSCToken> {
 public:
  using Base::Base;
  [[nodiscard]] bool initWithSmartCard(
      const std::shared_ptr<TKSmartCard>& smartCard, const Bytes& AID, const Text& instanceID,
      const std::shared_ptr<TKSmartCardTokenDriver>& tokenDriver) noexcept override {
    return initialised([object() baseInitWithSmartCard:objectBehind(smartCard)
                                                   AID:dataOf(AID)
                                            instanceID:stringOf(instanceID)
                                           tokenDriver:objectBehind(tokenDriver)]);
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
    return initialised([object() baseInitWithToken:objectBehind(token)]);
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
  [[nodiscard]] bool init() noexcept override { return initialised([object() baseInit]); }
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

class KeyBase final : public Base<TKTokenKeychainKey, ::MirelCTKTokenKeychainKey> {
 public:
  using Base::Base;
  [[nodiscard]] bool initWithCertificate(const std::shared_ptr<SecCertificate>& certificate,
                                         const Text& objectID) noexcept override {
    return initialised([object() initWithCertificate:certificate ? refOf(*certificate) : nullptr
                                            objectID:stringOf(objectID)]);
  }
  [[nodiscard]] Text objectID() const noexcept override { return textOfObject([object() objectID]); }
  [[nodiscard]] Text label() const noexcept override { return textOf([object() label]); }
  void setLabel(const Text& label) noexcept override { [object() setLabel:stringOf(label)]; }
  /// Only written by the core.
  [[nodiscard]] std::optional<TKTokenConstraints> constraints() const noexcept override {
    return std::nullopt;
  }
  void setConstraints(const TKTokenConstraints& constraints) noexcept override {
    [object() setConstraints:dictionaryOf(constraints)];
  }
  /// The platform takes type and size from the certificate; the core does not look at them.
  [[nodiscard]] CertificateKeyType keyType() const noexcept override { return CertificateKeyType::kOther; }
  [[nodiscard]] int keySizeInBits() const noexcept override {
    return static_cast<int>([object() keySizeInBits]);
  }
  [[nodiscard]] bool canSign() const noexcept override { return [object() canSign]; }
  void setCanSign(bool value) noexcept override { [object() setCanSign:value ? YES : NO]; }
  [[nodiscard]] bool canDecrypt() const noexcept override { return [object() canDecrypt]; }
  void setCanDecrypt(bool value) noexcept override { [object() setCanDecrypt:value ? YES : NO]; }
  [[nodiscard]] bool canPerformKeyExchange() const noexcept override {
    return [object() canPerformKeyExchange];
  }
  void setCanPerformKeyExchange(bool value) noexcept override {
    [object() setCanPerformKeyExchange:value ? YES : NO];
  }
  [[nodiscard]] bool suitableForLogin() const noexcept override { return [object() isSuitableForLogin]; }
  void setSuitableForLogin(bool value) noexcept override { [object() setSuitableForLogin:value ? YES : NO]; }
};

/// A base of an object that somebody else owns.
template <typename BaseClass, typename Object>
std::shared_ptr<BaseClass> baseOfOwned(Object* object) noexcept {
  auto link = std::make_shared<Link>(Link{object, false});
  [object setLink:link];
  return std::make_shared<BaseClass>(std::move(link));
}

/// A base of a new object, which it owns.
template <typename BaseClass, typename Object>
std::shared_ptr<BaseClass> baseOfNew(Object* object) noexcept {
  auto link = std::make_shared<Link>(Link{object, true});
  [object setLink:link];
  return std::make_shared<BaseClass>(std::move(link));
}

class ExtensionTokenKit final : public TokenKit {
 public:
  [[nodiscard]] std::shared_ptr<TKSmartCardToken> allocSmartCardToken() noexcept override {
    return baseOfNew<TokenBase>([::MirelSCToken alloc]);
  }
  [[nodiscard]] std::shared_ptr<TKSmartCardTokenSession> allocTokenSession() noexcept override {
    return baseOfNew<SessionBase>([::MirelSCTokenSession alloc]);
  }
  [[nodiscard]] std::shared_ptr<TKTokenKeychainCertificate> allocKeychainCertificate() noexcept override {
    return allocatedKeychainCertificate();
  }
  [[nodiscard]] std::shared_ptr<TKTokenKeychainKey> allocKeychainKey() noexcept override {
    return baseOfNew<KeyBase>([::MirelCTKTokenKeychainKey alloc]);
  }
  [[nodiscard]] std::shared_ptr<TKTokenSmartCardPINAuthOperation> allocPINAuthOperation() noexcept override {
    return baseOfNew<PINOperationBase>([::MirelSCTokenAuth alloc]);
  }
  [[nodiscard]] std::shared_ptr<TKSmartCardPINFormat> allocPINFormat() noexcept override {
    return newPINFormat();
  }
};

/// What a test has put in the place of the system's services.
std::optional<PlatformServices>& replacement() noexcept {
  static std::optional<PlatformServices> services;
  return services;
}

/// Makes the Objective-C object the owner of the core object.
template <typename Core, typename Object, typename Interface>
Object* handedOutAs(const std::shared_ptr<Interface>& object) noexcept {
  const auto core = std::dynamic_pointer_cast<Core>(object);
  if (!core) return nil;
  auto* handed = static_cast<Object*>((id)core->platformObject());
  [handed adoptCore:core];
  return ObjCHolder<Object>::adopt(handed).autoreleased();
}

}  // namespace

const PlatformServices& extensionServices() noexcept {
  static const PlatformServices services = [] {
    PlatformServices all = systemServices();
    all.tokenKit = std::make_shared<ExtensionTokenKit>();
    return all;
  }();
  return replacement() ? *replacement() : services;
}

ScopedExtensionServices::ScopedExtensionServices(PlatformServices services) noexcept {
  replacement() = std::move(services);
}

ScopedExtensionServices::~ScopedExtensionServices() { replacement().reset(); }

std::shared_ptr<TKSmartCardToken> baseOf(::MirelSCToken* token) noexcept {
  return baseOfOwned<TokenBase>(token);
}
std::shared_ptr<TKSmartCardTokenSession> baseOf(::MirelSCTokenSession* session) noexcept {
  return baseOfOwned<SessionBase>(session);
}
std::shared_ptr<TKTokenSmartCardPINAuthOperation> baseOf(::MirelSCTokenAuth* operation) noexcept {
  return baseOfOwned<PINOperationBase>(operation);
}
std::shared_ptr<TKTokenKeychainKey> baseOf(::MirelCTKTokenKeychainKey* key) noexcept {
  return baseOfOwned<KeyBase>(key);
}

::MirelSCToken* handedOut(const std::shared_ptr<TKSmartCardToken>& token) noexcept {
  return handedOutAs<MirelSCToken, ::MirelSCToken>(token);
}
::MirelSCTokenSession* handedOut(const std::shared_ptr<TKTokenSession>& session) noexcept {
  return handedOutAs<MirelSCTokenSession, ::MirelSCTokenSession>(session);
}
::MirelSCTokenAuth* handedOut(const std::shared_ptr<TKTokenAuthOperation>& operation) noexcept {
  return handedOutAs<MirelSCTokenAuth, ::MirelSCTokenAuth>(operation);
}

std::shared_ptr<MirelSCToken> coreOf(::TKToken* token) noexcept {
  if (![token isKindOfClass:[::MirelSCToken class]]) return nullptr;
  return [static_cast<::MirelSCToken*>(token) core];
}

}  // namespace mirel
