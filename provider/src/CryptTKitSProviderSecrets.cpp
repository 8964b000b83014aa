#include <algorithm>
#include <array>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "bridge/CardRules.h"
#include "bridge/PKCS11_SERVICE_INFO.h"
#include "framework/MirelCTKFramework.h"
#include "platform/Log.h"
#include "platform/SecretBytes.h"
#include "provider/CryptTKitSProvider.h"

namespace mirel {
namespace {

/// Oddity: what is reported when the module was not asked.
constexpr CK_ULONG kTriesLeftAtFirst = 5;
constexpr std::u16string_view kRSAMark = u"RSA";
constexpr std::uint64_t kPadPKCS1 = 1;

Bytes firstBytes(std::span<const std::uint8_t> buffer, std::size_t count) {
  const auto wanted = buffer.first(count);
  return Bytes{std::vector<std::uint8_t>{wanted.begin(), wanted.end()}};
}

template <typename Value>
void set(Value* out, Value value) {
  if (out) *out = std::move(value);
}

}  // namespace

bool CryptTKitSProvider::userLogin(const Text& tokenName, const SecretText& pin, std::uint64_t pinLen,
                                   std::optional<std::uint64_t>* outRemains) noexcept {
  CK_ULONG remains = kTriesLeftAtFirst;
  bool accepted = false;
  if (const auto framework = pCTKFramework()) {
    (void)framework->EnumCards(tokenName);  // whether it failed, the login below shows
    (void)framework->OpenCardSession(tokenName, framework->p11ServiceInfo());
    // Oddity: the length is the caller's, in characters, though the PIN goes in bytes of UTF-8. So the PIN
    // lies in a block that may be read for any length that is not refused.
    SecretBytes<kMaxPinLen> block;
    (void)pin.copyUtf8(block.span());
    accepted = framework->PerformUserLogin(framework->p11ServiceInfo(), pin.isNull() ? nullptr : block.data(),
                                           pinLen, &remains);
  }
  set(outRemains, std::optional<std::uint64_t>{remains});
  return accepted;
}

bool CryptTKitSProvider::PerformSignHash(const Text& tokenName, const Text& keyName, const Text& algName,
                                         std::uint64_t dwFlag, const Bytes& data, std::uint64_t dataLen,
                                         Bytes* outSignature, std::uint64_t* ioSignatureLen) noexcept {
  const auto framework = pCTKFramework();
  if (!framework || !framework->EnumCardKeys(tokenName)) return false;
  if (!ioSignatureLen || dataLen > data.size()) return false;
  const auto key = getKeyFromCertID(keyName);  // may be null: the framework finds no private key then
  std::array<std::uint8_t, kMaxSignatureLen> signature{};
  const CK_ULONG room = std::min(*ioSignatureLen, kMaxSignatureLen);
  CK_ULONG length = *ioSignatureLen;
  const std::string readerName = tokenName.toUtf8();
  const bool signedIt = framework->PerformSignHash(readerName.c_str(), key, algName, dwFlag,
                                                   data.view().data(), dataLen, signature, &length);
  *ioSignatureLen = length;
  if (!signedIt || length > room) return false;
  set(outSignature, firstBytes(signature, length));
  return true;
}

bool CryptTKitSProvider::PerformDecryption(const Text& tokenName, const Text& keyName, const Text& algName,
                                           std::uint64_t padFlag, const std::uint8_t* cipher,
                                           std::uint64_t cipherLen, Bytes* outPlain,
                                           std::uint64_t* ioPlainLen) noexcept {
  SecretBytes<kMaxPlainLen> plain;
  const auto framework = pCTKFramework();
  if (!framework || !framework->EnumCardKeys(tokenName)) return false;
  const auto key = getKeyFromCertID(keyName);
  if (!key) services_.log->systemError("pAsymKeyInfo is nil");
  CK_ULONG length = ioPlainLen ? *ioPlainLen : 0;
  if (containsIgnoringCase(algName, kRSAMark) && padFlag == kPadPKCS1) {
    if (!ioPlainLen) return false;
    const std::string readerName = tokenName.toUtf8();
    // Oddity: PKCS #1 v1.5 for every algorithm, OAEP included.
    const bool decrypted = framework->PerformPKCS1Decrypt(readerName.c_str(), key, cipher, cipherLen,
                                                          plain.data(), &length, kMaxPlainLen);
    *ioPlainLen = length;
    if (!decrypted || length > kMaxPlainLen) return false;
    set(outPlain, firstBytes(plain.span(), length));
    return true;
  }
  // Oddity: without an operation of the card the answer is zeros, and success.
  set(outPlain, firstBytes(plain.span(), std::min<CK_ULONG>(length, kMaxPlainLen)));
  return true;
}

}  // namespace mirel
