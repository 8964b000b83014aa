#include "KeychainItems.h"

#include <optional>

#include "platform/Certificate.h"
#include "platform/Log.h"
#include "provider/CryptTKitSProvider.h"

namespace mirel {
namespace {

constexpr const char* kUnit = "MirelSCToken";
constexpr int kUnreadableCertificateLine = 132;
constexpr int kNoCertificateLine = 136;

constexpr std::u16string_view kPinAlways = u"PINAlways";

/// What a certificate with one bit of KeyUsage (RFC 5280, section 4.2.1.3) lets its key do.
struct KeyUsageRule {
  std::int32_t mask;
  TKTokenOperation operation;
  void (TKTokenKeychainKey::*setCapability)(bool);
  bool suitableForLogin;
};

/// Oddity: the first rule that matches is the only one that counts, so a certificate for signing and
/// key encipherment gives a key that only signs.
constexpr KeyUsageRule kKeyUsageRules[] = {
    {1 << 0, TKTokenOperation::kSignData, &TKTokenKeychainKey::setCanSign, true},        // digitalSignature
    {1 << 2, TKTokenOperation::kDecryptData, &TKTokenKeychainKey::setCanDecrypt, true},  // keyEncipherment
    {1 << 4, TKTokenOperation::kPerformKeyExchange, &TKTokenKeychainKey::setCanPerformKeyExchange,
     false},  // keyAgreement
};

/// Sets what the key can do and returns what must happen before it does.
TKTokenConstraints applyKeyUsage(const SecCertificate& certificate, TKTokenKeychainKey& key) {
  TKTokenConstraints constraints;
  const std::optional<std::int32_t> usage = certificate.keyUsage();
  if (!usage) return constraints;
  for (const KeyUsageRule& rule : kKeyUsageRules) {
    if ((*usage & rule.mask) == 0) continue;
    constraints[rule.operation] = Text{kPinAlways};
    (key.*rule.setCapability)(true);
    if (rule.suitableForLogin) key.setSuitableForLogin(true);
    break;
  }
  return constraints;
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
                         KeychainItems& items) {
  if (!listed) {
    services.log->systemError(logLine("[%s-%d] certificate == nil", kUnit, kNoCertificateLine));
    return;
  }
  const auto certificate = services.certificates->createWithData(listed->data);
  if (!certificate) {
    // Oddity: the text is that of another trouble, and is kept.
    services.log->systemError(
        logLine("[%s-%d] public key without mapping cert ID", kUnit, kUnreadableCertificateLine));
    return;
  }
  if (!listed->hasKey) return;

  const auto certificateItem = services.tokenKit->allocKeychainCertificate();
  if (certificateItem->initWithCertificate(certificate, listed->objectID)) {
    certificateItem->setLabel(listed->certificateID);
    items.push_back(certificateItem);
  }

  const auto key =
      services.tokenKit->newKeychainKey(services, certificate, listed->certificateID, listed->objectID, true);
  if (!key) return;
  const TKTokenConstraints constraints = applyKeyUsage(*certificate, *key);
  key->setLabel(listed->certificateID);
  key->setConstraints(constraints);
  items.push_back(key);
}

}  // namespace mirel
