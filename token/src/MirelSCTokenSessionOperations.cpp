#include <mutex>

#include "Algorithms.h"
#include "Description.h"
#include "ReaderName.h"
#include "platform/Log.h"
#include "provider/CryptTKitSProvider.h"
#include "token/MirelCTKTokenKeychainKey.h"
#include "token/MirelSCTokenSession.h"

namespace mirel {
namespace {

constexpr const char* kUnit = "MirelSCTokenSession";

// Where the lines say they come from.
constexpr int kSupportsKeyNotFoundLine = 121;
constexpr int kSupportsLine = 125;
constexpr int kAuthenticatedKeyStartLine = 157;
constexpr int kAuthenticationNeededLine = 170;
constexpr int kAuthenticatedKeyEndLine = 177;
constexpr int kGeneralAuthenticateStartLine = 184;
constexpr int kGeneralAuthenticateFailedLine = 187;
constexpr int kGeneralAuthenticateEndLine = 190;
constexpr int kSignStartLine = 204;
constexpr int kSignKeyNotFoundLine = 211;
constexpr int kSignLine = 217;
constexpr int kSignNotSupportedLine = 230;
constexpr int kDecryptStartLine = 255;
constexpr int kDecryptKeyNotFoundLine = 265;
constexpr int kDecryptLine = 271;
constexpr int kDecryptAlgorithmLine = 287;
constexpr int kExchangeStartLine = 308;
constexpr int kExchangeKeyNotFoundLine = 312;
constexpr int kExchangeLine = 318;

constexpr std::uint8_t kDataTag = 0x82;
constexpr std::uint64_t kNoFlag = 0;
constexpr std::uint64_t kPadPKCS1 = 1;

TKError errorOf(TKErrorCode code) {
  return TKError{Text{kTKErrorDomain}, static_cast<std::int64_t>(code), Text{}};
}

bool asksForThePinEachTime(const TKTokenKeychainKey& key) noexcept {
  const auto* ours = dynamic_cast<const MirelCTKTokenKeychainKey*>(&key);
  return ours && ours->alwaysAuthenticate();
}

Bytes emptyBytes() { return Bytes{std::vector<std::uint8_t>{}}; }

}  // namespace

std::shared_ptr<TKTokenKeychainKey> MirelSCTokenSession::keyForObjectID(
    const Text& keyObjectID, TKErrorPointer outError) const noexcept {
  const auto owner = token();
  const auto contents = owner ? owner->keychainContents() : nullptr;
  return contents ? contents->keyForObjectID(keyObjectID, outError) : nullptr;
}

Text MirelSCTokenSession::readerName() const noexcept { return readerNameOf(smartCard()); }

bool MirelSCTokenSession::supportsOperation(const std::shared_ptr<TKTokenSession>&,
                                            TKTokenOperation operation, const Text& keyObjectID,
                                            const TKTokenKeyAlgorithm& algorithm) noexcept {
  Log& log = *services_.log;
  const auto key = keyForObjectID(keyObjectID, nullptr);
  if (!key) {
    log.systemError(logLine("[%s-%d] supportsOperation key not found", kUnit, kSupportsKeyNotFoundLine));
    return false;
  }
  log.systemDefault(logLine("CTK [%s-%d] ", kUnit, kSupportsLine));
  algorithmToPrint(algorithm, log);
  return isSupported(operation, *key, algorithm);
}

std::shared_ptr<TKTokenKeychainKey> MirelSCTokenSession::authenticatedKeyForObjectID(
    const Text& keyObjectID, TKErrorPointer outError) noexcept {
  Log& log = *services_.log;
  log.systemDefault(logLine("CTK [%s-%d] +++START+++", kUnit, kAuthenticatedKeyStartLine));
  auto key = keyForObjectID(keyObjectID, outError);
  if (!key) {
    log.systemError("keyItem is nil.");
    return nullptr;
  }
  const std::int64_t state = authState();
  const auto card = smartCard();
  const bool spent = asksForThePinEachTime(*key) && state == kUsed;
  if (state != kNotAuthenticated && !spent && card && card->context().has_value()) {
    log.systemDefault(logLine("CTK [%s-%d] ---END---", kUnit, kAuthenticatedKeyEndLine));
    return key;
  }
  if (outError) {
    *outError = errorOf(TKErrorCode::kAuthenticationNeeded);
    log.process(logLine("[%s-%d] %@", kUnit, kAuthenticationNeededLine, errorDescription(**outError)));
  }
  return nullptr;
}

std::shared_ptr<TKTokenKeychainKey> MirelSCTokenSession::generalAuthenticateWithData(
    const Bytes&, std::uint8_t, const Text& keyObjectID, TKErrorPointer outError) noexcept {
  Log& log = *services_.log;
  log.systemDefault(logLine("CTK [%s-%d] +++START+++", kUnit, kGeneralAuthenticateStartLine));
  auto key = authenticatedKeyForObjectID(keyObjectID, outError);
  if (key) {
    log.systemDefault(logLine("CTK [%s-%d] ---END---", kUnit, kGeneralAuthenticateEndLine));
  } else {
    log.process(logLine("[%s-%d] keyObjectID = %@", kUnit, kGeneralAuthenticateFailedLine, keyObjectID));
  }
  return key;
}

Bytes MirelSCTokenSession::signData(const std::shared_ptr<TKTokenSession>&, const Bytes& dataToSign,
                                    const Text& keyObjectID, const TKTokenKeyAlgorithm& algorithm,
                                    TKErrorPointer outError) noexcept {
  Log& log = *services_.log;
  log.systemDefault(logLine("CTK [%s-%d] +++START+++", kUnit, kSignStartLine));
  const bool authenticated = authState() == kAuthenticated;
  const auto key = generalAuthenticateWithData(dataToSign, kDataTag, keyObjectID, outError);
  // Oddity: without a login the answer is only asked for the error it leaves.
  if (!authenticated) return {};
  if (!key) {
    // Oddity: the error of the search is replaced, so a card without its mark does not ask for the PIN again.
    log.systemError(logLine("[%s-%d] signData key not found", kUnit, kSignKeyNotFoundLine));
    if (outError) *outError = errorOf(TKErrorCode::kTokenNotFound);
    return {};
  }
  log.systemDefault(logLine("CTK [%s-%d] ", kUnit, kSignLine));
  algorithmToPrint(algorithm, log);
  const std::string_view name = algorithmName(TKTokenOperation::kSignData, algorithm);
  if (name.empty()) {
    // Oddity: the spelling is that of the log lines that are known, and there is no error.
    log.process(logLine("[%s-%d] alogrithm not support, return nil.", kUnit, kSignNotSupportedLine));
    return {};
  }

  Bytes signature = emptyBytes();
  std::uint64_t signatureLen = CryptTKitSProvider::kMaxSignatureLen;
  bool isSigned = false;
  if (const auto provider = sp()) {
    const Text reader = readerName();  // the platform is asked before the gate is taken
    const std::lock_guard alone{provider->gate()};
    isSigned = provider->PerformSignHash(reader, keyObjectID, Text::fromUtf8(name), kNoFlag, dataToSign,
                                         dataToSign.size(), &signature, &signatureLen);
  }
  log.process(logLine("isSigned = %hhd dataToSign = %@, signature = %@", isSigned ? 1 : 0,
                      dataDescription(dataToSign), dataDescription(signature)));
  // Oddity: the signature is handed out whatever the provider answered, and never with an error.
  return signature;
}

Bytes MirelSCTokenSession::decryptData(const std::shared_ptr<TKTokenSession>&, const Bytes& ciphertext,
                                       const Text& keyObjectID, const TKTokenKeyAlgorithm& algorithm,
                                       TKErrorPointer outError) noexcept {
  Log& log = *services_.log;
  log.systemDefault(logLine("CTK [%s-%d] +++START+++", kUnit, kDecryptStartLine));
  const bool authenticated = authState() == kAuthenticated;
  const auto key = generalAuthenticateWithData(ciphertext, kDataTag, keyObjectID, outError);
  // Oddity: without a login the answer is only asked for the error it leaves.
  if (!authenticated) return {};
  if (!key) {
    // Oddity: the error is replaced as in signing, but the line goes to the other log.
    log.process(logLine("[%s-%d] decryptData key not found", kUnit, kDecryptKeyNotFoundLine));
    if (outError) *outError = errorOf(TKErrorCode::kTokenNotFound);
    return {};
  }
  log.systemDefault(logLine("CTK [%s-%d] ", kUnit, kDecryptLine));
  algorithmToPrint(algorithm, log);
  const std::string_view name = algorithmName(TKTokenOperation::kDecryptData, algorithm);
  // Oddity: unlike in signing, nothing is logged.
  if (name.empty()) return {};
  log.process(logLine("[%s-%d] decryptData %@ %@ algName %@", kUnit, kDecryptAlgorithmLine, keyObjectID,
                      dataDescription(ciphertext), name));

  Bytes plain = emptyBytes();
  std::uint64_t plainLen = CryptTKitSProvider::kMaxPlainLen;
  if (const auto provider = sp()) {
    const Text reader = readerName();  // the platform is asked before the gate is taken
    const std::lock_guard alone{provider->gate()};
    // Oddity: what the provider answers is not looked at; the plain text tells.
    (void)provider->PerformDecryption(reader, keyObjectID, Text::fromUtf8(name), kPadPKCS1,
                                      ciphertext.view().data(), ciphertext.size(), &plain, &plainLen);
  }
  return plain;
}

Bytes MirelSCTokenSession::performKeyExchangeWithPublicKey(
    const std::shared_ptr<TKTokenSession>&, const Bytes&, const Text& keyObjectID,
    const TKTokenKeyAlgorithm& algorithm, const std::shared_ptr<TKTokenKeyExchangeParameters>&,
    TKErrorPointer outError) noexcept {
  Log& log = *services_.log;
  log.systemDefault(logLine("CTK [%s-%d] +++START+++", kUnit, kExchangeStartLine));
  if (keyForObjectID(keyObjectID, outError)) {
    log.process(logLine("[%s-%d] performKeyExchangeWithPublicKey %@ algorithm %@", kUnit, kExchangeLine,
                        keyObjectID, objectDescription("TKTokenKeyAlgorithm", &algorithm)));
  } else {
    log.process(logLine("[%s-%d] performKeyExchangeWithPublicKey objectID not found", kUnit,
                        kExchangeKeyNotFoundLine));
    if (outError) *outError = errorOf(TKErrorCode::kTokenNotFound);
  }
  // Oddity: key exchange is advertised, but answers nothing.
  return {};
}

}  // namespace mirel
