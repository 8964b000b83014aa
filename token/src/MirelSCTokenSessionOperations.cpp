#include <mutex>
#include <vector>

#include "Algorithms.h"
#include "Description.h"
#include "platform/Log.h"
#include "provider/CryptTKitSProvider.h"
#include "token/MirelSCTokenSession.h"

namespace mirel {
namespace {

constexpr const char* kUnit = "MirelSCTokenSession";

constexpr std::int64_t kDataTag = 0x82;
constexpr std::uint64_t kNoFlag = 0;
constexpr std::uint64_t kPadPKCS1 = 1;

Bytes emptyBytes() { return Bytes{std::vector<std::uint8_t>{}}; }

}  // namespace

bool MirelSCTokenSession::supportsOperation(TKSmartCardTokenSession& session, TKTokenOperation operation,
                                            const Text& keyObjectID,
                                            const TKTokenKeyAlgorithm& algorithm) noexcept {
  Log& log = *services_.log;
  const auto key = session.keyForObjectID(keyObjectID, nullptr);
  if (!key) {
    log.systemError(logLine("[%s-%d] supportsOperation key not found", kUnit, 121));
    return false;
  }
  log.systemDefault(logLine("CTK [%s-%d] ", kUnit, 125));
  algorithmToPrint(algorithm, log);
  return isSupported(operation, *key, algorithm);
}

bool MirelSCTokenSession::authenticatedKeyForObjectID(TKSmartCardTokenSession& session,
                                                      const Text& keyObjectID,
                                                      TKErrorPointer outError) noexcept {
  Log& log = *services_.log;
  log.systemDefault(logLine("CTK [%s-%d] +++START+++", kUnit, 157));
  const auto key = session.keyForObjectID(keyObjectID, outError);
  if (!key) {
    log.systemError("keyItem is nil.");
    return false;
  }
  const std::int64_t state = authState();
  const bool spent = key->alwaysAuthenticate && state == kUsed;
  if (state != kNotAuthenticated && !spent && session.smartCard().hasContext()) {
    log.systemDefault(logLine("CTK [%s-%d] ---END---", kUnit, 177));
    return true;
  }
  if (outError) {
    *outError = tkError(TKErrorCode::kAuthenticationNeeded);
    log.process(logLine("[%s-%d] %@", kUnit, 170, errorDescription(**outError)));
  }
  return false;
}

bool MirelSCTokenSession::generalAuthenticateWithData(TKSmartCardTokenSession& session, const Bytes&,
                                                      std::int64_t, const Text& keyObjectID,
                                                      TKErrorPointer outError) noexcept {
  Log& log = *services_.log;
  log.systemDefault(logLine("CTK [%s-%d] +++START+++", kUnit, 184));
  const bool usable = authenticatedKeyForObjectID(session, keyObjectID, outError);
  if (usable) {
    log.systemDefault(logLine("CTK [%s-%d] ---END---", kUnit, 190));
  } else {
    log.process(logLine("[%s-%d] keyObjectID = %@", kUnit, 187, keyObjectID));
  }
  return usable;
}

Bytes MirelSCTokenSession::signData(TKSmartCardTokenSession& session, const Bytes& dataToSign,
                                    const Text& keyObjectID, const TKTokenKeyAlgorithm& algorithm,
                                    TKErrorPointer outError) noexcept {
  Log& log = *services_.log;
  log.systemDefault(logLine("CTK [%s-%d] +++START+++", kUnit, 204));
  const bool authenticated = authState() == kAuthenticated;
  const bool usable = generalAuthenticateWithData(session, dataToSign, kDataTag, keyObjectID, outError);
  // Oddity: without a login the answer is only asked for the error it leaves.
  if (!authenticated) return {};
  if (!usable) {
    // Oddity: the error of the search is replaced, so a card without its mark does not ask for the PIN again.
    log.systemError(logLine("[%s-%d] signData key not found", kUnit, 211));
    if (outError) *outError = tkError(TKErrorCode::kTokenNotFound);
    return {};
  }
  log.systemDefault(logLine("CTK [%s-%d] ", kUnit, 217));
  algorithmToPrint(algorithm, log);
  const std::string_view name = algorithmName(TKTokenOperation::kSignData, algorithm);
  if (name.empty()) {
    // Oddity: the spelling is that of the log lines that are known, and there is no error.
    log.process(logLine("[%s-%d] alogrithm not support, return nil.", kUnit, 230));
    return {};
  }

  Bytes signature = emptyBytes();
  std::uint64_t signatureLen = CryptTKitSProvider::kMaxSignatureLen;
  bool isSigned = false;
  if (const auto provider = sp()) {
    const Text reader = session.smartCard().name();  // the platform is asked before the gate is taken
    const std::lock_guard alone{provider->gate()};
    isSigned = provider->PerformSignHash(reader, keyObjectID, Text::fromUtf8(name), kNoFlag, dataToSign,
                                         dataToSign.size(), &signature, &signatureLen);
  }
  log.process(logLine("isSigned = %hhd dataToSign = %@, signature = %@", isSigned ? 1 : 0,
                      dataDescription(dataToSign), dataDescription(signature)));
  // Oddity: the signature is handed out whatever the provider answered, and never with an error.
  return signature;
}

Bytes MirelSCTokenSession::decryptData(TKSmartCardTokenSession& session, const Bytes& ciphertext,
                                       const Text& keyObjectID, const TKTokenKeyAlgorithm& algorithm,
                                       TKErrorPointer outError) noexcept {
  Log& log = *services_.log;
  log.systemDefault(logLine("CTK [%s-%d] +++START+++", kUnit, 255));
  const bool authenticated = authState() == kAuthenticated;
  const bool usable = generalAuthenticateWithData(session, ciphertext, kDataTag, keyObjectID, outError);
  // Oddity: without a login the answer is only asked for the error it leaves.
  if (!authenticated) return {};
  if (!usable) {
    // Oddity: the error is replaced as in signing, but the line goes to the other log.
    log.process(logLine("[%s-%d] decryptData key not found", kUnit, 265));
    if (outError) *outError = tkError(TKErrorCode::kTokenNotFound);
    return {};
  }
  log.systemDefault(logLine("CTK [%s-%d] ", kUnit, 271));
  algorithmToPrint(algorithm, log);
  const std::string_view name = algorithmName(TKTokenOperation::kDecryptData, algorithm);
  // Oddity: unlike in signing, nothing is logged.
  if (name.empty()) return {};
  log.process(logLine("[%s-%d] decryptData %@ %@ algName %@", kUnit, 287, keyObjectID,
                      dataDescription(ciphertext), name));

  Bytes plain = emptyBytes();
  std::uint64_t plainLen = CryptTKitSProvider::kMaxPlainLen;
  if (const auto provider = sp()) {
    const Text reader = session.smartCard().name();  // the platform is asked before the gate is taken
    const std::lock_guard alone{provider->gate()};
    // Oddity: what the provider answers is not looked at; the plain text tells.
    (void)provider->PerformDecryption(reader, keyObjectID, Text::fromUtf8(name), kPadPKCS1,
                                      ciphertext.view().data(), ciphertext.size(), &plain, &plainLen);
  }
  return plain;
}

Bytes MirelSCTokenSession::performKeyExchangeWithPublicKey(TKSmartCardTokenSession& session,
                                                           const Text& keyObjectID,
                                                           const TKTokenKeyAlgorithm& algorithm,
                                                           TKErrorPointer outError) noexcept {
  Log& log = *services_.log;
  log.systemDefault(logLine("CTK [%s-%d] +++START+++", kUnit, 308));
  if (session.keyForObjectID(keyObjectID, outError)) {
    log.process(logLine("[%s-%d] performKeyExchangeWithPublicKey %@ algorithm %@", kUnit, 318, keyObjectID,
                        algorithm.description()));
  } else {
    log.process(logLine("[%s-%d] performKeyExchangeWithPublicKey objectID not found", kUnit, 312));
    if (outError) *outError = tkError(TKErrorCode::kTokenNotFound);
  }
  // Oddity: key exchange is advertised, but answers nothing.
  return {};
}

}  // namespace mirel
