#include "provider/CryptTKitSProvider.h"

#include <algorithm>
#include <iterator>

#include "bridge/CardRules.h"
#include "bridge/PKCS11_SERVICE_INFO.h"
#include "framework/MirelCTKFramework.h"
#include "platform/Log.h"

namespace mirel {
namespace {

std::shared_ptr<PKCS11_SERVICE_INFO> recordOf(const std::shared_ptr<MirelCTKFramework>& framework) noexcept {
  return framework ? framework->p11ServiceInfo() : nullptr;
}

CK_TOKEN_INFO tokenInfoOf(const MirelCTKFramework& framework) noexcept {
  const auto record = framework.p11ServiceInfo();
  return record ? record->tokenInfo() : CK_TOKEN_INFO{};
}

std::shared_ptr<KeyRecords> keysOf(const std::shared_ptr<MirelCTKFramework>& framework) noexcept {
  const auto record = recordOf(framework);
  return record ? record->pAsymKeys() : nullptr;
}

std::shared_ptr<CertificateRecords> certificatesOf(
    const std::shared_ptr<MirelCTKFramework>& framework) noexcept {
  const auto record = recordOf(framework);
  return record ? record->pCerts() : nullptr;
}

/// True when that very record, not one like it, is in the list.
template <typename Records>
bool contains(const std::shared_ptr<Records>& list, const typename Records::value_type& record) noexcept {
  return list && record && std::find(list->begin(), list->end(), record) != list->end();
}

}  // namespace

CryptTKitSProvider::CryptTKitSProvider(PlatformServices services) noexcept : services_{std::move(services)} {}

CryptTKitSProvider::~CryptTKitSProvider() = default;

std::shared_ptr<CryptTKitSProvider> CryptTKitSProvider::initWithMirelCTKFramwork() noexcept {
  if (!pCTKFramework()) setPCTKFramework(std::make_shared<MirelCTKFramework>(services_));
  return pCTKFramework()->OpenFrameworkService() ? weak_from_this().lock() : nullptr;
}

bool CryptTKitSProvider::releaseWithMirelCTKFramework() noexcept {
  const auto framework = pCTKFramework();
  if (framework && !framework->CloseFrameworkService()) return false;
  setPCTKFramework(nullptr);
  return true;
}

Text CryptTKitSProvider::getSupportedTokenDescription(const Text& tokenName) noexcept {
  const auto framework = pCTKFramework();
  if (!framework) {
    services_.log->systemError(
        "[CryptTKitSProvider: 49] -[CryptTKitSProvider getSupportedTokenDescription:] nil == _pCTKFramework");
    return Text{};
  }
  if (!framework->EnumCards(tokenName)) {
    services_.log->systemError(
        "[CryptTKitSProvider: 54] -[CryptTKitSProvider getSupportedTokenDescription:] "
        "_pCTKFramework EnumCards failed");
    return Text{u""};
  }
  return instanceIDOf(tokenInfoOf(*framework));
}

std::uint64_t CryptTKitSProvider::openTKSmartCardTokenSession(const Text& tokenName) noexcept {
  const auto framework = pCTKFramework();
  if (!framework) return 0;
  (void)framework->EnumCards(tokenName);  // whether it failed, the session below shows
  (void)framework->OpenCardSession(tokenName, framework->p11ServiceInfo());
  const auto record = framework->p11ServiceInfo();
  return record ? record->hSession() : 0;
}

bool CryptTKitSProvider::getTokenPubKeys(const Text& tokenName, KeyList* outKeys) noexcept {
  const auto framework = pCTKFramework();
  if (!framework || !framework->EnumCardKeys(tokenName)) return false;
  const auto keys = keysOf(framework);
  if (!outKeys || !keys) return true;
  const KeyRecords snapshot = *keys;  // the caller's list may be this very one
  for (const auto& key : snapshot) {
    if (!key) continue;
    // Oddity: the name is stored back unchanged.
    key->setKeyName(key->keyName());
    outKeys->push_back(key);
  }
  return true;
}

bool CryptTKitSProvider::getTokenCerts(const Text& tokenName, CertificateList* outCertificates) noexcept {
  const auto framework = pCTKFramework();
  if (!framework || !framework->EnumCardKeys(tokenName)) return false;
  const auto certificates = certificatesOf(framework);
  if (!outCertificates || !certificates) return true;
  const CertificateRecords snapshot = *certificates;  // the caller's list may be this very one
  std::copy_if(snapshot.begin(), snapshot.end(), std::back_inserter(*outCertificates),
               [](const auto& certificate) { return certificate && !certificate->pbCertData().isNull(); });
  return true;
}

Text CryptTKitSProvider::getTokenKeyName(const std::shared_ptr<PKCS11_ASYMKEY_INFO>& key) noexcept {
  return contains(keysOf(pCTKFramework()), key) ? key->keyName() : Text{u""};
}

Text CryptTKitSProvider::getCertName(
    const std::shared_ptr<PKCS11_CERTIFICATEOBJ_INFO>& certificate) noexcept {
  if (!contains(certificatesOf(pCTKFramework()), certificate)) return Text{u""};
  return certificateNameOf(certificate->strLabel(), certificate->strID());
}

Text CryptTKitSProvider::getCertID(const std::shared_ptr<PKCS11_CERTIFICATEOBJ_INFO>& certificate) noexcept {
  const auto certificates = certificatesOf(pCTKFramework());
  if (contains(certificates, certificate)) return certificate->strID().orNullMark();
  services_.log->process(
      logLine("[CryptTKitSProvider-143] pCerts.count = %lu", certificates ? certificates->size() : 0));
  return Text{u""};
}

std::shared_ptr<PKCS11_ASYMKEY_INFO> CryptTKitSProvider::getKeyFromCertID(
    const Text& certificateID) noexcept {
  const auto keys = keysOf(pCTKFramework());
  if (!keys || certificateID.isNull()) return nullptr;
  const auto match = std::find_if(keys->begin(), keys->end(),
                                  [&](const auto& key) { return key && key->keyID() == certificateID; });
  return match == keys->end() ? nullptr : *match;
}

Bytes CryptTKitSProvider::getCertData(
    const std::shared_ptr<PKCS11_CERTIFICATEOBJ_INFO>& certificate) noexcept {
  return contains(certificatesOf(pCTKFramework()), certificate) ? certificate->pbCertData() : Bytes{};
}

Bytes CryptTKitSProvider::getPublicKeyValue(const std::shared_ptr<PKCS11_ASYMKEY_INFO>& key) noexcept {
  return contains(keysOf(pCTKFramework()), key) ? key->pKeyValue() : Bytes{};
}

}  // namespace mirel
