#include "token/MirelSCToken.h"

#include <mutex>
#include <optional>
#include <utility>
#include <vector>

#include "Description.h"
#include "KeychainItems.h"
#include "platform/Log.h"
#include "provider/CryptTKitSProvider.h"

namespace mirel {
namespace {

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

MirelSCToken::MirelSCToken(PlatformServices services) noexcept : services_{std::move(services)} {}

MirelSCToken::~MirelSCToken() = default;

bool MirelSCToken::initWithSmartCard(const TKSmartCard& smartCard, TKTokenKeychainContents& contents,
                                     const Super& super, TKErrorPointer outError) noexcept {
  Log& log = *services_.log;
  log.systemDefault("CTK [MirelSCToken-31] +++Start+++");
  if (const auto old = sp()) {
    log.systemDefault("CTK [MirelSCToken-33] nil != sp");
    {
      const std::lock_guard alone{old->gate()};  // sessions may still use it
      old->releaseWithMirelCTKFramework();
    }
    log.systemDefault("CTK [MirelSCToken-35] After releaseWithMirelCTKFramework");
  }
  setSp(std::make_shared<CryptTKitSProvider>(services_)->initWithMirelCTKFramwork());
  const auto provider = sp();
  if (!provider) {
    log.systemError("[MirelSCToken-39] CryptTKitSProvider initWithMirelCTKFramwork fail!!!");
    return false;
  }

  const Text readerName = smartCard.name();
  const Text instanceID = describeToken(*provider, readerName);
  if (instanceID.isEmpty()) {
    // Oddity: without an error pointer there is no log line either.
    if (outError) {
      *outError = tkError(TKErrorCode::kObjectNotFound);
      log.systemError("[MirelSCToken-48] Get token ID fail");
    }
    return false;
  }
  log.process(logLine("[MirelSCToken-52] instanceID = %@", instanceID));

  const bool registered = super(instanceID);
  if (!registered) {
    setSp(nullptr);  // the platform may keep what it has refused
  } else if (const auto certificates = readCertificates(*provider, readerName); !certificates) {
    log.systemError("[MirelSCToken-64] CryptTKitSProvider getTokenCerts fail");
  } else {
    log.systemDefault(logLine("CTK [MirelSCToken-66] certs count = %lu", certificates->size()));
    for (const auto& certificate : *certificates) appendKeychainItems(services_, certificate, contents);
    contents.fillWithItems();
  }
  log.systemDefault("CTK [MirelSCToken-143] ---END---");
  return registered;
}

void MirelSCToken::createSessionWithError(const Text& token, const std::optional<TKError>* error,
                                          const std::function<Text()>& newSession) noexcept {
  Log& log = *services_.log;
  log.process(logLine("[MirelSCToken-148] token = %@", token));
  if (!error) {
    log.process("[MirelSCToken-150] token createSessionWithError NO ERROR!");
  } else if (*error) {
    log.process(logLine("[MirelSCToken-152] Error: %@", errorDescription(**error)));
  }
  // Oddity: the session is on this token, whatever token was named.
  const Text session = newSession();
  log.process(logLine("[MirelSCToken-155] token session = %@", session));
}

}  // namespace mirel
