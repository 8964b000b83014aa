#include <algorithm>
#include <array>
#include <cstddef>
#include <span>

#include "CardRecord.h"
#include "bridge/CardRules.h"
#include "bridge/P11Bridge.h"
#include "bridge/SlotDescription.h"
#include "framework/MirelCTKFramework.h"
#include "platform/Hex.h"
#include "platform/Log.h"

namespace mirel {
namespace {

// Oddity: the log lines of this file name the unit MirelCTKFramework and positions there. In those of a
// signature the method stands in the place of the unit.

/// Room for an RSA signature of up to 4096 bits.
constexpr CK_ULONG kSignatureRoom = 512;

constexpr std::u16string_view kRSAMark = u"RSA";

CK_OBJECT_HANDLE publicHandleOf(const std::shared_ptr<PKCS11_ASYMKEY_INFO>& key) noexcept {
  return key ? key->hPubKey() : 0;
}

/// True when the bridge finds the private key that belongs to the public one.
bool findPrivateKey(P11Bridge& bridge, CK_SESSION_HANDLE session, CK_OBJECT_HANDLE publicKey,
                    CK_OBJECT_HANDLE& outKey) noexcept {
  outKey = 0;
  return bridge.pkcs11_getCorrespondingPrivateKey(session, publicKey, &outKey) == CKR_OK;
}

/// The buffer that a signature is made in, zeroed at first.
struct WorkingSignature {
  std::array<CK_BYTE, kSignatureRoom> bytes{};
  CK_ULONG length = kSignatureRoom;  ///< as the module wrote it

  /// Copies what was made, as far as both buffers reach. A null output takes nothing.
  void copyTo(std::span<CK_BYTE> output) const noexcept {
    std::copy_n(bytes.begin(), std::min<CK_ULONG>({length, kSignatureRoom, output.size()}), output.data());
  }
};

}  // namespace

bool MirelCTKFramework::PerformUserLogin(const std::shared_ptr<PKCS11_SERVICE_INFO>& record,
                                         const CK_BYTE* pin, CK_ULONG pinLen,
                                         CK_ULONG* outRemainingTries) noexcept {
  const auto stored = p11ServiceInfo_;
  const auto bridge = p11Bridge();
  if (!stored || !bridge) return false;
  const CK_SESSION_HANDLE session = record ? record->hSession() : 0;
  const CK_RV rv = bridge->pkcs11_UserLogin(session, pin, pinLen);
  // Oddity: the bit of CKR_USER_ALREADY_LOGGED_IN is masked off, so both codes are a success.
  if ((rv & ~CKR_USER_ALREADY_LOGGED_IN) == CKR_OK) return true;

  auto answer = std::make_shared<PKCS11_SERVICE_INFO>();
  answer->setHSessionInfo({});
  (void)bridge->pkcs11_GetSessionInfo(session, &answer);  // after a failure the zeros stay
  stored->setHSessionInfo(answer->hSessionInfo());
  // Oddity: the module is taken to report the tries left as a device error.
  if (outRemainingTries) *outRemainingTries = answer->hSessionInfo().ulDeviceError;
  return false;
}

bool MirelCTKFramework::PerformGenSessionSymKey(const void*, const void*, const void*, const void*,
                                                const void*) noexcept {
  // Oddity: key exchange is offered but never made here.
  return false;
}

bool MirelCTKFramework::isReady(const char* readerName) const noexcept {
  return p11ServiceInfo_ && p11Bridge() &&
         descriptionBeginsWithAscii(p11ServiceInfo_->slotInfo(), readerName) && hasSession(*p11ServiceInfo_);
}

bool MirelCTKFramework::PerformSignHash(const char* readerName,
                                        const std::shared_ptr<PKCS11_ASYMKEY_INFO>& key,
                                        const Text& algorithmName, CK_ULONG, const CK_BYTE* data,
                                        CK_ULONG dataLen, std::span<CK_BYTE> outSignature,
                                        CK_ULONG* ioSignatureLen) noexcept {
  Log& log = *services_.log;
  log.process(logLine("[-[MirelCTKFramework PerformSignHash::::::::]-437] pccAlgName = %@", algorithmName));
  if (!isReady(readerName) || !ioSignatureLen) return false;
  const auto bridge = p11Bridge();
  const CK_SESSION_HANDLE session = p11ServiceInfo_->hSession();
  const CK_OBJECT_HANDLE publicKey = publicHandleOf(key);
  log.process(logLine("[-[MirelCTKFramework PerformSignHash::::::::]-462] key ID = %@, public key = %lX",
                      key ? key->keyID() : Text{}, hexOfNumber(publicKey, HexDigits::kUpper)));

  const auto output = outSignature.first(std::min<std::size_t>(outSignature.size(), *ioSignatureLen));
  CK_OBJECT_HANDLE privateKey = 0;
  if (!findPrivateKey(*bridge, session, publicKey, privateKey)) return false;
  if (bridge->pkcs11_getRSAKeyModulus(session, publicKey, nullptr, ioSignatureLen) != CKR_OK) return false;
  const Text keyName = key ? key->keyName() : Text{};
  log.process(logLine("[-[MirelCTKFramework PerformSignHash::::::::]-480] keyName = %@", keyName));

  // Oddity: the key's name decides, not the algorithm. Without "RSA" nothing is signed, with success.
  if (!containsIgnoringCase(keyName, kRSAMark)) return true;
  WorkingSignature work;
  if (containsIgnoringCase(keyName, kPssMark)) {
    // Oddity: the signature stays here; the caller gets the length of the modulus and a success.
    return bridge->pkcs11_genSignaturePSS(session, privateKey, CKM_SHA256, data, dataLen, work.bytes.data(),
                                          &work.length, kSignatureRoom) == CKR_OK;
  }
  if (bridge->pkcs11_genSignaturePKCS1(session, privateKey, data, dataLen, work.bytes.data(), &work.length,
                                       kSignatureRoom) != CKR_OK) {
    // Oddity: a failure is answered with success and whatever the working buffer holds.
    work.copyTo(output);
    return true;
  }
  *ioSignatureLen = work.length;
  if (outSignature.data() && work.length > output.size()) return false;
  work.copyTo(output);
  return true;
}

bool MirelCTKFramework::PerformOAEPDecrypt(const char* readerName,
                                           const std::shared_ptr<PKCS11_ASYMKEY_INFO>& key,
                                           CK_MECHANISM_TYPE hash, const CK_BYTE* cipher, CK_ULONG cipherLen,
                                           CK_BYTE* outPlain, CK_ULONG* outPlainLen,
                                           CK_ULONG capacity) noexcept {
  if (!isReady(readerName)) return false;
  Log& log = *services_.log;
  const auto bridge = p11Bridge();
  const CK_SESSION_HANDLE session = p11ServiceInfo_->hSession();
  log.process("[MirelCTKFramework-552] -[MirelCTKFramework PerformOAEPDecrypt::::::::]");
  CK_OBJECT_HANDLE unused = 0;  // Oddity: only a test; the bridge looks for the key once more
  if (!findPrivateKey(*bridge, session, publicHandleOf(key), unused)) return false;
  log.process("[MirelCTKFramework-562] -[MirelCTKFramework PerformOAEPDecrypt::::::::]");
  if (bridge->pkcs11_genDecryptOAEP(session, publicHandleOf(key), cipher, cipherLen, hash, outPlain,
                                    outPlainLen, capacity) != CKR_OK) {
    return false;
  }
  log.process("[MirelCTKFramework-570] -[MirelCTKFramework PerformOAEPDecrypt::::::::]");
  return true;
}

bool MirelCTKFramework::PerformPKCS1Decrypt(const char* readerName,
                                            const std::shared_ptr<PKCS11_ASYMKEY_INFO>& key,
                                            const CK_BYTE* cipher, CK_ULONG cipherLen, CK_BYTE* outPlain,
                                            CK_ULONG* outPlainLen, CK_ULONG capacity) noexcept {
  if (!isReady(readerName)) return false;
  const auto bridge = p11Bridge();
  const CK_SESSION_HANDLE session = p11ServiceInfo_->hSession();
  CK_OBJECT_HANDLE unused = 0;  // Oddity: only a test; the bridge looks for the key once more
  if (!findPrivateKey(*bridge, session, publicHandleOf(key), unused)) return false;
  if (bridge->pkcs11_genDecryptPKCS1(session, publicHandleOf(key), cipher, cipherLen, outPlain, outPlainLen,
                                     capacity) != CKR_OK) {
    return false;
  }
  services_.log->process("[MirelCTKFramework-607] -[MirelCTKFramework PerformPKCS1Decrypt:::::::]");
  return true;
}

}  // namespace mirel
