#include "token/MirelSCToken.h"

#include <mutex>
#include <optional>
#include <vector>

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

Text describeToken(CryptTKitSProvider& provider, const Text& readerName) noexcept {
  const std::lock_guard alone{provider.gate()};
  return provider.getSupportedTokenDescription(readerName);
}

/// Opens the card session and reads the certificates; nothing when they cannot be listed. All in one: a
/// session of the token that has just been registered may use the provider already, and would replace what
/// is looked up here.
std::optional<std::vector<std::optional<ListedCertificate>>> readCertificates(
    CryptTKitSProvider& provider, const Text& readerName) noexcept {
  const std::lock_guard alone{provider.gate()};
  provider.openTKSmartCardTokenSession(readerName);
  CryptTKitSProvider::CertificateList records;
  if (!provider.getTokenCerts(readerName, &records)) return std::nullopt;
  std::vector<std::optional<ListedCertificate>> certificates;
  certificates.reserve(records.size());
  for (const auto& record : records) certificates.push_back(lookUp(provider, record));
  return certificates;
}

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
    {
      const std::lock_guard alone{old->gate()};  // sessions may still use it
      old->releaseWithMirelCTKFramework();
    }
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
  const Text instanceID = describeToken(*provider, readerName);
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
    fillKeychainContents(*provider, readerName);
  } else {
    setSp(nullptr);  // the platform may keep what it has refused
  }
  log.systemDefault(logLine("CTK [%s-%d] ---END---", kUnit, kEndLine));
  return registered ? weak_from_this().lock() : nullptr;
}

void MirelSCToken::fillKeychainContents(CryptTKitSProvider& provider, const Text& readerName) noexcept {
  Log& log = *services_.log;
  const auto certificates = readCertificates(provider, readerName);
  if (!certificates) {
    log.systemError(logLine("[%s-%d] CryptTKitSProvider getTokenCerts fail", kUnit, kCertificatesFailedLine));
    return;
  }
  log.systemDefault(
      logLine("CTK [%s-%d] certs count = %lu", kUnit, kCertificateCountLine, certificates->size()));
  KeychainItems items;
  for (const auto& certificate : *certificates) appendKeychainItems(services_, certificate, items);
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
