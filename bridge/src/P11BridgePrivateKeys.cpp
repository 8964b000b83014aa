#include <algorithm>
#include <array>

#include "CryptokiCall.h"
#include "CryptokiValues.h"
#include "platform/Memory.h"

namespace mirel {
namespace {

constexpr std::uint32_t kMaxKeySizeInBits = 521;
constexpr CK_ULONG kDerivedKeyLen = 16;  // bytes

/// RSASSA-PSS as it follows from the hash: MGF1 with the same hash, a salt of its length.
constexpr std::array<CK_RSA_PKCS_PSS_PARAMS, 5> kPssParameters{{
    {CKM_SHA_1, CKG_MGF1_SHA1, 20},
    {CKM_SHA224, CKG_MGF1_SHA224, 28},
    {CKM_SHA256, CKG_MGF1_SHA256, 32},
    {CKM_SHA384, CKG_MGF1_SHA384, 48},
    {CKM_SHA512, CKG_MGF1_SHA512, 64},
}};

const CK_RSA_PKCS_PSS_PARAMS* pssParametersOf(CK_MECHANISM_TYPE hash) noexcept {
  const auto* const row = std::find_if(kPssParameters.begin(), kPssParameters.end(),
                                       [&](const auto& parameters) { return parameters.hashAlg == hash; });
  return row == kPssParameters.end() ? nullptr : row;
}

/// Forgets what a block held before the memory is given back.
class WipedBlock {
 public:
  explicit WipedBlock(Memory& memory) noexcept : block_{memory} {}
  WipedBlock(const WipedBlock&) = delete;
  WipedBlock& operator=(const WipedBlock&) = delete;
  ~WipedBlock() { wipe(block_.data(), block_.size()); }

  [[nodiscard]] MemoryBlock& get() noexcept { return block_; }

 private:
  MemoryBlock block_;
};

}  // namespace

/// Where the result of a private-key operation goes.
struct P11Bridge::KeyResult {
  CK_BYTE* output;     ///< room for `capacity` bytes; null: only the length is wanted
  CK_ULONG* ioLen;     ///< in: the room announced to the module; out: the length as it wrote it
  CK_ULONG capacity;   ///< bytes
  CK_RV tooLongError;  ///< what a longer result is answered with
};

/// Initialises the operation on the key and runs it on the data, in one go.
template <auto InitEntry, auto Entry>
CK_RV P11Bridge::useKey(CK_SESSION_HANDLE session, CK_MECHANISM& mechanism, CK_OBJECT_HANDLE key,
                        const CK_BYTE* data, CK_ULONG dataLen, const KeyResult& result) const noexcept {
  const CK_ULONG room = *result.ioLen;
  WipedBlock ownRoom{*services_.memory};
  CK_BYTE* target = result.output;
  if (target && room > result.capacity) {
    if (room > kMaxResultRoom || !ownRoom.get().allocate(room)) return CKR_HOST_MEMORY;
    target = ownRoom.get().data();
  }

  if (CK_RV rv = call<InitEntry>(session, &mechanism, key); rv != CKR_OK) return rv;
  // The module only reads the data; the standard's prototypes do not say so.
  if (CK_RV rv = call<Entry>(session, const_cast<CK_BYTE_PTR>(data), dataLen, target, result.ioLen);
      rv != CKR_OK) {
    return rv;
  }
  if (target != result.output) {
    std::copy_n(target, std::min(*result.ioLen, result.capacity), result.output);
  }
  return *result.ioLen > result.capacity ? result.tooLongError : CKR_OK;
}

CK_RV P11Bridge::pkcs11_genSignaturePKCS1(CK_SESSION_HANDLE session, CK_OBJECT_HANDLE key,
                                          const CK_BYTE* data, CK_ULONG dataLen, CK_BYTE* outSignature,
                                          CK_ULONG* ioSignatureLen, CK_ULONG capacity) noexcept {
  return operation(BridgeOperation::pkcs11_genSignaturePKCS1, [&]() -> CK_RV {
    if (!ckFunc()) return CKR_CRYPTOKI_NOT_INITIALIZED;
    if (isNoHandle(session) || isNoHandle(key)) return CKR_ARGUMENTS_BAD;
    if (!data || dataLen == 0 || !ioSignatureLen || capacity == 0) return CKR_ARGUMENTS_BAD;
    // Oddity: no size query here, unlike the other signatures.
    if (!outSignature) return isNoHandle(*ioSignatureLen) ? CKR_KEY_HANDLE_INVALID : CKR_FUNCTION_FAILED;

    CK_MECHANISM mechanism{CKM_RSA_X_509, nullptr, 0};
    // Oddity: CKR_SIGNATURE_INVALID where the other signatures have CKR_SIGNATURE_LEN_RANGE.
    return useKey<&CK_FUNCTION_LIST::C_SignInit, &CK_FUNCTION_LIST::C_Sign>(
        session, mechanism, key, data, dataLen,
        {outSignature, ioSignatureLen, capacity, CKR_SIGNATURE_INVALID});
  });
}

CK_RV P11Bridge::pkcs11_genSignaturePSS(CK_SESSION_HANDLE session, CK_OBJECT_HANDLE keyObject,
                                        CK_MECHANISM_TYPE hash, const CK_BYTE* data, CK_ULONG dataLen,
                                        CK_BYTE* outSignature, CK_ULONG* outSignatureLen,
                                        CK_ULONG capacity) noexcept {
  return operation(BridgeOperation::pkcs11_genSignaturePSS, [&]() -> CK_RV {
    if (!ckFunc()) return CKR_CRYPTOKI_NOT_INITIALIZED;
    if (isNoHandle(session) || isNoHandle(keyObject)) return CKR_ARGUMENTS_BAD;
    if (!data || dataLen == 0 || !outSignatureLen || capacity == 0) return CKR_ARGUMENTS_BAD;
    if (hash == CK_UNAVAILABLE_INFORMATION) return CKR_ARGUMENTS_BAD;
    const CK_RSA_PKCS_PSS_PARAMS* row = pssParametersOf(hash);
    if (!row) return CKR_MECHANISM_INVALID;

    CK_OBJECT_HANDLE key = 0;
    if (CK_RV rv = pkcs11_getCorrespondingPrivateKey(session, keyObject, &key); rv != CKR_OK) return rv;
    if (CK_RV rv = pkcs11_getRSAKeyModulus(session, key, nullptr, outSignatureLen); rv != CKR_OK) return rv;
    if (!outSignature) return isNoHandle(*outSignatureLen) ? CKR_KEY_HANDLE_INVALID : CKR_OK;

    CK_RSA_PKCS_PSS_PARAMS parameters = *row;
    CK_MECHANISM mechanism{CKM_RSA_PKCS_PSS, &parameters, sizeof parameters};
    return useKey<&CK_FUNCTION_LIST::C_SignInit, &CK_FUNCTION_LIST::C_Sign>(
        session, mechanism, key, data, dataLen,
        {outSignature, outSignatureLen, capacity, CKR_SIGNATURE_LEN_RANGE});
  });
}

CK_RV P11Bridge::pkcs11_genECDSA(CK_SESSION_HANDLE session, CK_OBJECT_HANDLE keyObject,
                                 std::uint32_t keySizeInBits, const CK_BYTE* data, CK_ULONG dataLen,
                                 CK_BYTE* outSignature, CK_ULONG* ioSignatureLen,
                                 CK_ULONG capacity) noexcept {
  return operation(BridgeOperation::pkcs11_genECDSA, [&]() -> CK_RV {
    if (!ckFunc()) return CKR_CRYPTOKI_NOT_INITIALIZED;
    if (isNoHandle(session) || isNoHandle(keyObject)) return CKR_ARGUMENTS_BAD;
    if (!data || dataLen == 0 || !ioSignatureLen || capacity == 0) return CKR_ARGUMENTS_BAD;
    if (keySizeInBits == 0 || keySizeInBits > kMaxKeySizeInBits) return CKR_ARGUMENTS_BAD;
    // Oddity: larger keys pass the check above, only to be refused with another code.
    if (keySizeInBits != 256 && keySizeInBits != 384) return CKR_CURVE_NOT_SUPPORTED;

    CK_OBJECT_HANDLE key = 0;
    if (CK_RV rv = pkcs11_getCorrespondingPrivateKey(session, keyObject, &key); rv != CKR_OK) return rv;
    // Oddity: the size query leaves the caller its own value.
    if (!outSignature) return isNoHandle(*ioSignatureLen) ? CKR_KEY_HANDLE_INVALID : CKR_OK;

    CK_MECHANISM mechanism{CKM_ECDSA, nullptr, 0};
    return useKey<&CK_FUNCTION_LIST::C_SignInit, &CK_FUNCTION_LIST::C_Sign>(
        session, mechanism, key, data, dataLen,
        {outSignature, ioSignatureLen, capacity, CKR_SIGNATURE_LEN_RANGE});
  });
}

CK_RV P11Bridge::decryptPKCS1(CK_SESSION_HANDLE session, CK_OBJECT_HANDLE keyObject, const CK_BYTE* cipher,
                              CK_ULONG cipherLen, const KeyResult& result) noexcept {
  CK_OBJECT_HANDLE key = 0;
  if (CK_RV rv = pkcs11_getCorrespondingPrivateKey(session, keyObject, &key); rv != CKR_OK) return rv;
  if (CK_RV rv = pkcs11_getRSAKeyModulus(session, key, nullptr, result.ioLen); rv != CKR_OK) return rv;
  CK_MECHANISM mechanism{CKM_RSA_PKCS, nullptr, 0};
  return useKey<&CK_FUNCTION_LIST::C_DecryptInit, &CK_FUNCTION_LIST::C_Decrypt>(session, mechanism, key,
                                                                                cipher, cipherLen, result);
}

CK_RV P11Bridge::pkcs11_genDecryptPKCS1(CK_SESSION_HANDLE session, CK_OBJECT_HANDLE keyObject,
                                        const CK_BYTE* cipher, CK_ULONG cipherLen, CK_BYTE* outPlain,
                                        CK_ULONG* outPlainLen, CK_ULONG capacity) noexcept {
  return operation(BridgeOperation::pkcs11_genDecryptPKCS1, [&]() -> CK_RV {
    if (!ckFunc()) return CKR_CRYPTOKI_NOT_INITIALIZED;
    if (isNoHandle(session) || isNoHandle(keyObject)) return CKR_ARGUMENTS_BAD;
    if (!cipher || cipherLen == 0 || !outPlainLen || capacity == 0) return CKR_ARGUMENTS_BAD;
    return decryptPKCS1(session, keyObject, cipher, cipherLen,
                        {outPlain, outPlainLen, capacity, CKR_ENCRYPTED_DATA_LEN_RANGE});
  });
}

CK_RV P11Bridge::pkcs11_genDecryptOAEP(CK_SESSION_HANDLE session, CK_OBJECT_HANDLE keyObject,
                                       const CK_BYTE* cipher, CK_ULONG cipherLen, CK_MECHANISM_TYPE hash,
                                       CK_BYTE* outPlain, CK_ULONG* outPlainLen, CK_ULONG capacity) noexcept {
  return operation(BridgeOperation::pkcs11_genDecryptOAEP, [&]() -> CK_RV {
    if (!ckFunc()) return CKR_CRYPTOKI_NOT_INITIALIZED;
    if (isNoHandle(session) || isNoHandle(keyObject)) return CKR_ARGUMENTS_BAD;
    if (!cipher || cipherLen == 0 || !outPlainLen || capacity == 0) return CKR_ARGUMENTS_BAD;
    if (!pssParametersOf(hash)) return CKR_MECHANISM_INVALID;
    // Oddity: decrypted with the PKCS #1 v1.5 mechanism, not with CKM_RSA_PKCS_OAEP.
    return decryptPKCS1(session, keyObject, cipher, cipherLen,
                        {outPlain, outPlainLen, capacity, CKR_ENCRYPTED_DATA_LEN_RANGE});
  });
}

CK_RV P11Bridge::pkcs11_genSymKeyFromECDH(CK_SESSION_HANDLE session, CK_OBJECT_HANDLE baseKey,
                                          const CK_BYTE* publicData, CK_ULONG publicDataLen,
                                          CK_OBJECT_HANDLE* outKey) noexcept {
  return operation(BridgeOperation::pkcs11_genSymKeyFromECDH, [&]() -> CK_RV {
    if (!ckFunc()) return CKR_CRYPTOKI_NOT_INITIALIZED;
    if (isNoHandle(session)) return CKR_ARGUMENTS_BAD;
    if (!publicData || publicDataLen == CK_UNAVAILABLE_INFORMATION || !outKey) return CKR_ARGUMENTS_BAD;
    if (baseKey == 0) return CKR_KEY_HANDLE_INVALID;
    if (baseKey == kNoHandle) return CKR_ARGUMENTS_BAD;

    CK_ECDH1_DERIVE_PARAMS parameters{};
    parameters.kdf = CKD_NULL;
    parameters.ulPublicDataLen = publicDataLen;
    parameters.pPublicData = const_cast<CK_BYTE_PTR>(publicData);  // only read
    // Oddity: the parameter length is 1, not the structure's size.
    CK_MECHANISM mechanism{CKM_ECDH1_DERIVE, &parameters, 1};

    CK_OBJECT_CLASS objectClass = CKO_SECRET_KEY;
    CK_BBOOL isTrue = CK_TRUE;
    CK_BBOOL isFalse = CK_FALSE;
    CK_KEY_TYPE keyType = CKK_GENERIC_SECRET;
    CK_ULONG valueLen = kDerivedKeyLen;
    std::array secret{attribute(CKA_CLASS, objectClass), attribute(CKA_SENSITIVE, isTrue),
                      attribute(CKA_ENCRYPT, isTrue),    attribute(CKA_KEY_TYPE, keyType),
                      attribute(CKA_TOKEN, isFalse),     attribute(CKA_VALUE_LEN, valueLen)};
    return call<&CK_FUNCTION_LIST::C_DeriveKey>(session, &mechanism, baseKey, secret.data(),
                                                CK_ULONG{secret.size()}, outKey);
  });
}

}  // namespace mirel
