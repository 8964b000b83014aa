#pragma once

/// The platform's objects that this system's own build on, for the core: each runs the base initialiser of an
/// Objective-C object of ours, and passes the rest on to it.
///
/// Ownership: an Objective-C object owns its core object, which owns its base, which therefore does not own
/// the Objective-C object. A base outlives its object when others hold the core object; then it behaves like
/// one of nil.

#import <CryptoTokenKit/CryptoTokenKit.h>

#include <memory>

#include "platform/PlatformServices.h"
#include "platform/TokenKit.h"

@class MirelCTKTokenKeychainKey;
@class MirelSCToken;
@class MirelSCTokenAuth;
@class MirelSCTokenSession;

namespace mirel {

class MirelSCToken;
class MirelSCTokenDriver;

/// What an Objective-C object and its base share.
struct Link {
  id object = nil;  ///< not retained; nil once it has gone
};

/// The services of the running system, with a token kit that makes objects by their Objective-C initialisers.
[[nodiscard]] PlatformServices newExtensionServices() noexcept;

/// What the extension's objects work with: always the same.
[[nodiscard]] const PlatformServices& extensionServices() noexcept;

/// The base of an object that has been allocated.
[[nodiscard]] std::shared_ptr<TKSmartCardToken> baseOf(::MirelSCToken* token) noexcept;
[[nodiscard]] std::shared_ptr<TKSmartCardTokenSession> baseOf(::MirelSCTokenSession* session) noexcept;
[[nodiscard]] std::shared_ptr<TKTokenSmartCardPINAuthOperation> baseOf(
    ::MirelSCTokenAuth* operation) noexcept;
[[nodiscard]] std::shared_ptr<TKTokenKeychainKey> baseOf(::MirelCTKTokenKeychainKey* key) noexcept;

/// The core of a driver, which has no base: what it needs of one the platform hands it.
[[nodiscard]] std::shared_ptr<MirelSCTokenDriver> newDriverCore() noexcept;
/// The core of an object that has been allocated, on its base.
template <typename Core, typename Object>
[[nodiscard]] std::shared_ptr<Core> newCore(Object* object) noexcept {
  return std::make_shared<Core>(extensionServices(), baseOf(object));
}

/// Any token, as far as it can be printed; null for nil.
[[nodiscard]] std::shared_ptr<TKSmartCardToken> wrapped(::TKToken* token) noexcept;

/// The core object of a token of ours; null for any other.
[[nodiscard]] std::shared_ptr<MirelSCToken> coreOf(::TKToken* token) noexcept;

}  // namespace mirel
