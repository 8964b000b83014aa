#include "token/MirelSCToken.h"

#include "Description.h"
#include "KeychainItems.h"
#include "ReaderName.h"
#include "platform/Log.h"
#include "provider/CryptTKitSProvider.h"

namespace mirel {
namespace {

constexpr const char* kUnit = "MirelSCToken";

// Where the lines say they come from.
constexpr int kStartLine = 31;
constexpr int kOldProviderLine = 33;
constexpr int kOldProviderReleasedLine = 35;
constexpr int kProviderFailedLine = 39;
constexpr int kTokenIdFailedLine = 48;
constexpr int kInstanceIdLine = 52;
constexpr int kCertificatesFailedLine = 64;
constexpr int kCertificateCountLine = 66;
constexpr int kEndLine = 143;
constexpr int kSessionForTokenLine = 148;
constexpr int kSessionNoErrorLine = 150;
constexpr int kSessionErrorLine = 152;
constexpr int kSessionLine = 155;

}  // namespace

MirelSCToken::MirelSCToken(PlatformServices services, std::shared_ptr<TKSmartCardToken> base) noexcept
    : services_{std::move(services)}, base_{std::move(base)} {}

MirelSCToken::~MirelSCToken() = default;

std::shared_ptr<MirelSCToken> MirelSCToken::initWithSmartCard(
    const std::shared_ptr<TKSmartCard>& smartCard, const Bytes& AID,
    const std::shared_ptr<TKSmartCardTokenDriver>& driver, TKErrorPointer outError) noexcept {
  Log& log = *services_.log;
  log.systemDefault(logLine("CTK [%s-%d] +++Start+++", kUnit, kStartLine));
  if (const auto old = sp()) {
    log.systemDefault(logLine("CTK [%s-%d] nil != sp", kUnit, kOldProviderLine));
    old->releaseWithMirelCTKFramework();
    log.systemDefault(
        logLine("CTK [%s-%d] After releaseWithMirelCTKFramework", kUnit, kOldProviderReleasedLine));
  }
  setSp(std::make_shared<CryptTKitSProvider>(services_)->initWithMirelCTKFramwork());
  const auto provider = sp();
  if (!provider) {
    log.systemError(
        logLine("[%s-%d] CryptTKitSProvider initWithMirelCTKFramwork fail!!!", kUnit, kProviderFailedLine));
    return nullptr;
  }

  const Text readerName = readerNameOf(smartCard);
  const Text instanceID = provider->getSupportedTokenDescription(readerName);
  if (instanceID.isEmpty()) {
    // Oddity: without an error pointer there is no log line either.
    if (outError) {
      *outError =
          TKError{Text{kTKErrorDomain}, static_cast<std::int64_t>(TKErrorCode::kObjectNotFound), Text{}};
      log.systemError(logLine("[%s-%d] Get token ID fail", kUnit, kTokenIdFailedLine));
    }
    return nullptr;
  }
  log.process(logLine("[%s-%d] instanceID = %@", kUnit, kInstanceIdLine, instanceID));

  const bool registered = initWithSmartCard(smartCard, AID, instanceID, driver);
  if (registered) {
    provider->openTKSmartCardTokenSession(readerName);
    fillKeychainContents(*provider, readerName);
  } else {
    setSp(nullptr);  // the platform may keep what it has refused
  }
  log.systemDefault(logLine("CTK [%s-%d] ---END---", kUnit, kEndLine));
  return registered ? weak_from_this().lock() : nullptr;
}

void MirelSCToken::fillKeychainContents(CryptTKitSProvider& provider, const Text& readerName) noexcept {
  Log& log = *services_.log;
  KeychainItems items;
  CryptTKitSProvider::CertificateList certificates;
  if (!provider.getTokenCerts(readerName, &certificates)) {
    log.systemError(logLine("[%s-%d] CryptTKitSProvider getTokenCerts fail", kUnit, kCertificatesFailedLine));
    return;
  }
  log.systemDefault(
      logLine("CTK [%s-%d] certs count = %lu", kUnit, kCertificateCountLine, certificates.size()));
  for (const auto& certificate : certificates) appendKeychainItems(services_, provider, certificate, items);
  if (const auto contents = keychainContents()) contents->fillWithItems(items);
}

std::shared_ptr<TKTokenSession> MirelSCToken::createSessionWithError(
    const std::shared_ptr<TKSmartCardToken>& token, TKErrorPointer outError) noexcept {
  Log& log = *services_.log;
  log.process(logLine("[%s-%d] token = %@", kUnit, kSessionForTokenLine,
                      objectDescription("MirelSCToken", token.get())));
  if (!outError) {
    log.process(logLine("[%s-%d] token createSessionWithError NO ERROR!", kUnit, kSessionNoErrorLine));
  } else if (*outError) {
    log.process(logLine("[%s-%d] Error: %@", kUnit, kSessionErrorLine, errorDescription(**outError)));
  }
  // Oddity: the session is on this token, whatever token was named.
  const auto session = services_.tokenKit->newTokenSession(services_, weak_from_this().lock());
  log.process(logLine("[%s-%d] token session = %@", kUnit, kSessionLine,
                      objectDescription("MirelSCTokenSession", session.get())));
  return session;
}

}  // namespace mirel
