#pragma once

#include <memory>
#include <vector>

#include "platform/PlatformServices.h"
#include "platform/TokenKit.h"

namespace mirel {

class CryptTKitSProvider;
class PKCS11_CERTIFICATEOBJ_INFO;

using KeychainItems = std::vector<std::shared_ptr<TKTokenKeychainItem>>;

/// Appends the certificate item and the key item of one certificate of the provider's current list.
/// Nothing is appended for a null record, for data that is no certificate (both are logged) and for a
/// certificate without a key on the card. The key item alone is missing when the platform refuses it.
void appendKeychainItems(const PlatformServices& services, CryptTKitSProvider& provider,
                         const std::shared_ptr<PKCS11_CERTIFICATEOBJ_INFO>& record, KeychainItems& items);

}  // namespace mirel
