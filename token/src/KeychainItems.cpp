#include "KeychainItems.h"

#include <optional>

#include "platform/Certificate.h"
#include "platform/Log.h"
#include "provider/CryptTKitSProvider.h"

// Oddity: the lines name the unit MirelSCToken.

namespace mirel {
namespace {

constexpr std::u16string_view kPinAlways = u"PINAlways";

/// What a certificate with one bit of KeyUsage (RFC 5280, section 4.2.1.3) lets its key do.
struct KeyUsageRule {
  std::int32_t mask;
  TKTokenOperation operation;
  bool TKTokenKeychainKey::*capability;
  bool suitableForLogin;
};

/// Oddity: the first rule that matches is the only one that counts, so a certificate for signing and
/// key encipherment gives a key that only signs.
constexpr KeyUsageRule kKeyUsageRules[] = {
    {1 << 0, TKTokenOperation::kSignData, &TKTokenKeychainKey::canSign, true},        // digitalSignature
    {1 << 2, TKTokenOperation::kDecryptData, &TKTokenKeychainKey::canDecrypt, true},  // keyEncipherment
    {1 << 4, TKTokenOperation::kPerformKeyExchange, &TKTokenKeychainKey::canPerformKeyExchange,
     false},  // keyAgreement
};

/// Sets what the key can do, and what must happen before it does.
void applyKeyUsage(const SecCertificate& certificate, TKTokenKeychainKey& key) {
  const std::optional<std::int32_t> usage = certificate.keyUsage();
  if (!usage) return;
  for (const KeyUsageRule& rule : kKeyUsageRules) {
    if ((*usage & rule.mask) == 0) continue;
    key.constraints[rule.operation] = Text{kPinAlways};
    key.*rule.capability = true;
    key.suitableForLogin = rule.suitableForLogin;
    break;
  }
}

}  // namespace

std::optional<ListedCertificate> lookUp(CryptTKitSProvider& provider,
                                        const std::shared_ptr<PKCS11_CERTIFICATEOBJ_INFO>& record) {
  if (!record) return std::nullopt;
  ListedCertificate listed;
  listed.data = provider.getCertData(record);
  if (listed.data.isNull()) return listed;
  listed.objectID = provider.getCertName(record);
  listed.certificateID = provider.getCertID(record);
  listed.hasKey = provider.getKeyFromCertID(listed.certificateID) != nullptr;
  return listed;
}

void appendKeychainItems(const PlatformServices& services, const std::optional<ListedCertificate>& listed,
                         TKTokenKeychainContents& contents) {
  if (!listed) {
    services.log->systemError("[MirelSCToken-136] certificate == nil");
    return;
  }
  const auto certificate = services.certificates->createWithData(listed->data);
  if (!certificate) {
    // Oddity: the text is that of another failure, and is kept.
    services.log->systemError("[MirelSCToken-132] public key without mapping cert ID");
    return;
  }
  if (!listed->hasKey) return;

  contents.append(TKTokenKeychainCertificate{certificate, listed->objectID, listed->certificateID});

  MirelCTKTokenKeychainKey key;
  key.certificate = certificate;
  key.objectID = listed->certificateID;
  key.certificateID = listed->objectID;
  key.alwaysAuthenticate = true;
  if (!contents.initKey(key)) return;
  applyKeyUsage(*certificate, key);
  key.label = listed->certificateID;
  contents.append(key);
}

}  // namespace mirel
