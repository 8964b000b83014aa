#include "token/BasedTokenKit.h"

#include "token/MirelCTKTokenKeychainKey.h"
#include "token/MirelSCToken.h"
#include "token/MirelSCTokenAuth.h"
#include "token/MirelSCTokenSession.h"

namespace mirel {

std::shared_ptr<TKSmartCardToken> BasedTokenKit::newToken(
    const PlatformServices& services, const std::shared_ptr<TKSmartCard>& smartCard, const Bytes& AID,
    const std::shared_ptr<TKSmartCardTokenDriver>& driver, TKErrorPointer outError) noexcept {
  return std::make_shared<MirelSCToken>(services, allocSmartCardToken())
      ->initWithSmartCard(smartCard, AID, driver, outError);
}

std::shared_ptr<TKSmartCardTokenSession> BasedTokenKit::newTokenSession(
    const PlatformServices& services, const std::shared_ptr<TKSmartCardToken>& token) noexcept {
  auto session = std::make_shared<MirelSCTokenSession>(services, allocTokenSession());
  return session->initWithToken(std::dynamic_pointer_cast<MirelSCToken>(token)) ? session : nullptr;
}

std::shared_ptr<TKTokenSmartCardPINAuthOperation> BasedTokenKit::newPINAuthOperation(
    const PlatformServices& services, const std::shared_ptr<TKSmartCardTokenSession>& session) noexcept {
  auto operation = std::make_shared<MirelSCTokenAuth>(services, allocPINAuthOperation());
  return operation->initWithSession(std::dynamic_pointer_cast<MirelSCTokenSession>(session)) ? operation
                                                                                             : nullptr;
}

std::shared_ptr<TKTokenKeychainKey> BasedTokenKit::newKeychainKey(
    const PlatformServices& services, const std::shared_ptr<SecCertificate>& certificate,
    const Text& objectID, const Text& certificateID, bool alwaysAuthenticate) noexcept {
  auto key = std::make_shared<MirelCTKTokenKeychainKey>(services, allocKeychainKey());
  return key->initWithCertificate(certificate, objectID, certificateID, alwaysAuthenticate) ? key : nullptr;
}

}  // namespace mirel
