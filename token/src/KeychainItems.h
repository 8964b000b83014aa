#pragma once

#include <memory>
#include <optional>

#include "platform/PlatformServices.h"
#include "platform/Text.h"
#include "token/TokenKit.h"

namespace mirel {

class CryptTKitSProvider;
class PKCS11_CERTIFICATEOBJ_INFO;

/// What the provider tells of one certificate.
struct ListedCertificate {
  Bytes data;  ///< null when the provider does not know the certificate; the rest is empty then
  Text objectID;
  Text certificateID;
  bool hasKey = false;
};

/// Looks a record up in the provider's current list; nothing for a null record. The provider's gate is to be
/// held since that list was read.
[[nodiscard]] std::optional<ListedCertificate> lookUp(
    CryptTKitSProvider& provider, const std::shared_ptr<PKCS11_CERTIFICATEOBJ_INFO>& record);

/// Appends the certificate item and the key item of one certificate. Nothing is appended where there is none,
/// for data that is no certificate (both are logged) and for a certificate without a key on the card. The key
/// item alone is missing when the platform refuses it. Calls the platform: not with a gate held.
void appendKeychainItems(const PlatformServices& services, const std::optional<ListedCertificate>& listed,
                         TKTokenKeychainContents& contents);

}  // namespace mirel
