#include <mutex>
#include <vector>

#include "Algorithms.h"
#include "Description.h"
#include "platform/Log.h"
#include "provider/CryptTKitSProvider.h"
#include "token/MirelSCTokenSession.h"

// Oddity: the lines name the unit MirelSCTokenSession.

namespace mirel {
namespace {

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
    log.systemError("[MirelSCTokenSession-121] supportsOperation key not found");
    return false;
  }
  log.systemDefault("CTK [MirelSCTokenSession-125] ");
  algorithmToPrint(algorithm, log);
  return isSupported(operation, *key, algorithm);
}

bool MirelSCTokenSession::authenticatedKeyForObjectID(TKSmartCardTokenSession& session,
                                                      const Text& keyObjectID,
                                                      TKErrorPointer outError) noexcept {
  Log& log = *services_.log;
  log.systemDefault("CTK [MirelSCTokenSession-157] +++START+++");
  const auto key = session.keyForObjectID(keyObjectID, outError);
  if (!key) {
    log.systemError("keyItem is nil.");
    return false;
  }
  const std::int64_t state = authState();
  const bool spent = key->alwaysAuthenticate && state == kUsed;
  if (state != kNotAuthenticated && !spent && session.smartCard().hasContext()) {
    log.systemDefault("CTK [MirelSCTokenSession-177] ---END---");
    return true;
  }
  if (outError) {
    *outError = tkError(TKErrorCode::kAuthenticationNeeded);
    log.process(logLine("[MirelSCTokenSession-170] %@", errorDescription(**outError)));
  }
  return false;
}

bool MirelSCTokenSession::generalAuthenticateWithData(TKSmartCardTokenSession& session, const Bytes&,
                                                      std::int64_t, const Text& keyObjectID,
                                                      TKErrorPointer outError) noexcept {
  Log& log = *services_.log;
  log.systemDefault("CTK [MirelSCTokenSession-184] +++START+++");
  const bool usable = authenticatedKeyForObjectID(session, keyObjectID, outError);
  if (usable) {
    log.systemDefault("CTK [MirelSCTokenSession-190] ---END---");
  } else {
    log.process(logLine("[MirelSCTokenSession-187] keyObjectID = %@", keyObjectID));
  }
  return usable;
}

Bytes MirelSCTokenSession::signData(TKSmartCardTokenSession& session, const Bytes& dataToSign,
                                    const Text& keyObjectID, const TKTokenKeyAlgorithm& algorithm,
                                    TKErrorPointer outError) noexcept {
  Log& log = *services_.log;
  log.systemDefault("CTK [MirelSCTokenSession-204] +++START+++");
  const bool authenticated = authState() == kAuthenticated;
  const bool usable = generalAuthenticateWithData(session, dataToSign, kDataTag, keyObjectID, outError);
  // Oddity: without a login the answer is only asked for the error it leaves.
  if (!authenticated) return {};
  if (!usable) {
    // Oddity: the error of the search is replaced, so a card without its mark does not ask for the PIN again.
    log.systemError("[MirelSCTokenSession-211] signData key not found");
    if (outError) *outError = tkError(TKErrorCode::kTokenNotFound);
    return {};
  }
  log.systemDefault("CTK [MirelSCTokenSession-217] ");
  algorithmToPrint(algorithm, log);
  const std::string_view name = algorithmName(TKTokenOperation::kSignData, algorithm);
  if (name.empty()) {
    // Oddity: the spelling is that of the log lines that are known, and there is no error.
    log.process("[MirelSCTokenSession-230] alogrithm not support, return nil.");
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
  log.systemDefault("CTK [MirelSCTokenSession-255] +++START+++");
  const bool authenticated = authState() == kAuthenticated;
  const bool usable = generalAuthenticateWithData(session, ciphertext, kDataTag, keyObjectID, outError);
  // Oddity: without a login the answer is only asked for the error it leaves.
  if (!authenticated) return {};
  if (!usable) {
    // Oddity: the error is replaced as in signing, but the line goes to the other log.
    log.process("[MirelSCTokenSession-265] decryptData key not found");
    if (outError) *outError = tkError(TKErrorCode::kTokenNotFound);
    return {};
  }
  log.systemDefault("CTK [MirelSCTokenSession-271] ");
  algorithmToPrint(algorithm, log);
  const std::string_view name = algorithmName(TKTokenOperation::kDecryptData, algorithm);
  // Oddity: unlike in signing, nothing is logged.
  if (name.empty()) return {};
  log.process(logLine("[MirelSCTokenSession-287] decryptData %@ %@ algName %@", keyObjectID,
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
  log.systemDefault("CTK [MirelSCTokenSession-308] +++START+++");
  if (session.keyForObjectID(keyObjectID, outError)) {
    log.process(logLine("[MirelSCTokenSession-318] performKeyExchangeWithPublicKey %@ algorithm %@",
                        keyObjectID, algorithm.description()));
  } else {
    log.process("[MirelSCTokenSession-312] performKeyExchangeWithPublicKey objectID not found");
    if (outError) *outError = tkError(TKErrorCode::kTokenNotFound);
  }
  // Oddity: key exchange is advertised, but answers nothing.
  return {};
}

}  // namespace mirel
