#include "bridge/PKCS11_ASYMKEY_INFO.h"
#include "bridge/PKCS11_CERTIFICATEOBJ_INFO.h"
#include "bridge/PKCS11_SERVICE_INFO.h"

namespace mirel {

std::shared_ptr<PKCS11_ASYMKEY_INFO> PKCS11_ASYMKEY_INFO::mutableCopyWithZone() const {
  auto copy = std::make_shared<PKCS11_ASYMKEY_INFO>();
  copy->setHPubKey(hPubKey());
  copy->setHPriKey(hPriKey());
  copy->setKeyID(keyID());
  copy->setKeyName(keyName());
  copy->setPKeyValue(pKeyValue());
  return copy;
}

std::shared_ptr<PKCS11_CERTIFICATEOBJ_INFO> PKCS11_CERTIFICATEOBJ_INFO::mutableCopyWithZone() const {
  auto copy = std::make_shared<PKCS11_CERTIFICATEOBJ_INFO>();
  copy->setHCert(hCert());
  copy->setStrLabel(strLabel());
  copy->setStrID(strID());
  copy->setPbCertData(pbCertData());
  return copy;
}

std::shared_ptr<PKCS11_SERVICE_INFO> PKCS11_SERVICE_INFO::mutableCopyWithZone() const {
  auto copy = std::make_shared<PKCS11_SERVICE_INFO>();
  copy->setHSession(hSession());
  copy->setHSessionInfo(hSessionInfo());
  copy->setTokenInfo(tokenInfo());
  copy->setSlotID(slotID());
  copy->setSlotInfo(slotInfo());
  copy->setPAsymKeys(pAsymKeys());
  copy->setPCerts(pCerts());
  copy->setM_certIndex(m_certIndex());
  copy->setM_keyIndex(m_keyIndex());
  return copy;
}

}  // namespace mirel
