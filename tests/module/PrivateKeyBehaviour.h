#pragma once

/// What the scripted module does with private keys: signing, decrypting, deriving.

#include <algorithm>
#include <utility>

#include "module/Behaviour.h"

namespace mirel::test {

using Operation = std::optional<Session::Operation> Session::*;

/// CKM_RSA_PKCS adds at least this many bytes (RFC 8017, section 7.2.1).
inline constexpr std::size_t kLeastPadding = 11;

// ---- Keys ----

inline bool has(const Object& object, CK_ATTRIBUTE_TYPE type, const Value& value) {
  const auto found = object.attributes.find(type);
  return found != object.attributes.end() && found->second == value;
}

inline bool isTrue(const Object& object, CK_ATTRIBUTE_TYPE type) {
  return has(object, type, boolValue(true));
}

inline std::size_t sizeOf(const Object& object, CK_ATTRIBUTE_TYPE type) {
  const auto found = object.attributes.find(type);
  return found == object.attributes.end() ? 0 : found->second.size();
}

/// CKR_OK when the session's card has that private key, of that type and for that use.
inline CK_RV findPrivateKey(const Session& session, CK_OBJECT_HANDLE handle, CK_KEY_TYPE type,
                            CK_ATTRIBUTE_TYPE permission) {
  const Card& card = theScript().card(session.slot);
  const auto found = card.objects.find(handle);
  if (found == card.objects.end()) return CKR_KEY_HANDLE_INVALID;
  const Object& key = found->second;
  if (!has(key, CKA_CLASS, ulongValue(CKO_PRIVATE_KEY))) return CKR_KEY_HANDLE_INVALID;
  if (!card.loggedIn) return CKR_USER_NOT_LOGGED_IN;
  if (!has(key, CKA_KEY_TYPE, ulongValue(type))) return CKR_KEY_TYPE_INCONSISTENT;
  return isTrue(key, permission) ? CKR_OK : CKR_KEY_FUNCTION_NOT_PERMITTED;
}

/// 0 for what is no hash.
inline std::size_t hashLen(CK_MECHANISM_TYPE hash) {
  constexpr std::pair<CK_MECHANISM_TYPE, std::size_t> kLengths[] = {
      {CKM_SHA_1, 20}, {CKM_SHA224, 28}, {CKM_SHA256, 32}, {CKM_SHA384, 48}, {CKM_SHA512, 64}};
  for (const auto& [known, length] : kLengths) {
    if (known == hash) return length;
  }
  return 0;
}

/// The length of a signature: that of the modulus, or twice that of the order of the curve.
inline std::size_t signatureLen(const Object& key, CK_MECHANISM_TYPE mechanism) {
  if (mechanism != CKM_ECDSA) return sizeOf(key, CKA_MODULUS);
  return has(key, CKA_EC_PARAMS, p384Params()) ? 96 : 64;
}

// ---- Operations ----

inline CK_RV checkParameters(const CK_MECHANISM& mechanism) {
  if (mechanism.mechanism != CKM_RSA_PKCS_PSS) {
    return mechanism.ulParameterLen == 0 ? CKR_OK : CKR_MECHANISM_PARAM_INVALID;
  }
  if (!mechanism.pParameter || mechanism.ulParameterLen != sizeof(CK_RSA_PKCS_PSS_PARAMS)) {
    return CKR_MECHANISM_PARAM_INVALID;
  }
  const auto& pss = *static_cast<const CK_RSA_PKCS_PSS_PARAMS*>(mechanism.pParameter);
  return hashLen(pss.hashAlg) > 0 ? CKR_OK : CKR_MECHANISM_PARAM_INVALID;
}

inline CK_RV begin(CK_SESSION_HANDLE handle, const CK_MECHANISM* mechanism, CK_OBJECT_HANDLE key,
                   CK_ATTRIBUTE_TYPE permission, std::initializer_list<CK_MECHANISM_TYPE> known,
                   Operation operation) {
  Session* session = nullptr;
  if (const CK_RV rv = findSession(handle, session); rv != CKR_OK) return rv;
  if (!mechanism) return CKR_ARGUMENTS_BAD;
  if (session->*operation) return CKR_OPERATION_ACTIVE;
  if (std::find(known.begin(), known.end(), mechanism->mechanism) == known.end()) {
    return CKR_MECHANISM_INVALID;
  }
  if (const CK_RV rv = checkParameters(*mechanism); rv != CKR_OK) return rv;
  const CK_KEY_TYPE type = mechanism->mechanism == CKM_ECDSA ? CKK_EC : CKK_RSA;
  if (const CK_RV rv = findPrivateKey(*session, key, type, permission); rv != CKR_OK) return rv;
  Session::Operation begun{mechanism->mechanism, 0, key};
  if (mechanism->mechanism == CKM_RSA_PKCS_PSS) {
    begun.hash = static_cast<const CK_RSA_PKCS_PSS_PARAMS*>(mechanism->pParameter)->hashAlg;
  }
  session->*operation = begun;
  return CKR_OK;
}

inline CK_RV sign(const Session::Operation& operation, const Object& key, const Value& data,
                  Value& outResult) {
  const std::size_t length = signatureLen(key, operation.mechanism);
  if (operation.mechanism == CKM_RSA_X_509 && data.size() > length) return CKR_DATA_LEN_RANGE;
  if (operation.mechanism == CKM_RSA_PKCS && data.size() + kLeastPadding > length) return CKR_DATA_LEN_RANGE;
  if (operation.mechanism == CKM_RSA_PKCS_PSS && data.size() != hashLen(operation.hash)) {
    return CKR_DATA_LEN_RANGE;
  }
  outResult = resultOf(operation.mechanism, data, length);
  return CKR_OK;
}

inline CK_RV decrypt(const Session::Operation&, const Object& key, const Value& cipher, Value& outResult) {
  if (const auto& plainText = theScript().deviations.plainText) {
    outResult = *plainText;
    return CKR_OK;
  }
  if (cipher.size() != sizeOf(key, CKA_MODULUS)) return CKR_ENCRYPTED_DATA_LEN_RANGE;
  if (cipher.size() < kLeastPadding || cipher[0] != 0x00 || cipher[1] != 0x02) {
    return CKR_ENCRYPTED_DATA_INVALID;
  }
  const auto end = std::find(cipher.begin() + 2, cipher.end(), CK_BYTE{0});
  if (end == cipher.end()) return CKR_ENCRYPTED_DATA_INVALID;
  outResult.assign(end + 1, cipher.end());
  return CKR_OK;
}

/// The size rule of PKCS #11 v2.40, section 5.2, unless the script claims a result.
inline CK_RV deliver(const char* function, const Value& result, CK_BYTE* output, CK_ULONG* len) {
  const CK_ULONG room = *len;
  const auto& claims = theScript().deviations.claimedResults;
  if (const auto claim = claims.find(function); claim != claims.end()) {
    const auto& [length, written] = claim->second;
    *len = length;
    if (!output) return CKR_OK;
    const CK_ULONG total = std::min(written.value_or(length), room);
    const CK_ULONG real = std::min<CK_ULONG>(total, result.size());
    std::copy_n(result.begin(), real, output);
    std::fill_n(output + real, total - real, kFiller);
    return CKR_OK;
  }
  *len = result.size();
  if (!output) return CKR_OK;
  if (room < result.size()) return CKR_BUFFER_TOO_SMALL;
  std::copy(result.begin(), result.end(), output);
  return CKR_OK;
}

inline void overwriteLength(const char* function, CK_ULONG* len) {
  const auto& lengths = theScript().deviations.lengthsOnFailure;
  if (const auto found = lengths.find(function); found != lengths.end() && len) *len = found->second;
}

using Work = CK_RV (*)(const Session::Operation&, const Object& key, const Value& data, Value& outResult);

inline CK_RV useWithoutDeviation(Work work, const char* function, Session& session, Operation operation,
                                 const CK_BYTE* data, CK_ULONG dataLen, CK_BYTE* output, CK_ULONG* len) {
  if (!(session.*operation)) return CKR_OPERATION_NOT_INITIALIZED;
  const Session::Operation begun = *(session.*operation);
  (session.*operation).reset();
  if ((!data && dataLen > 0) || dataLen > kMostBytes || !len) return CKR_ARGUMENTS_BAD;
  const Card& card = theScript().card(session.slot);
  const auto key = card.objects.find(begun.key);
  if (key == card.objects.end()) return CKR_KEY_HANDLE_INVALID;
  if (!card.loggedIn) return CKR_USER_NOT_LOGGED_IN;
  Value result;
  if (const CK_RV rv = work(begun, key->second, Value(data, data + dataLen), result); rv != CKR_OK) return rv;
  const CK_RV rv = deliver(function, result, output, len);
  if (!output || rv == CKR_BUFFER_TOO_SMALL) session.*operation = begun;
  return rv;
}

/// C_Sign and C_Decrypt.
template <auto Function, Work work, Operation operation>
struct Use {
  static constexpr const char* kName = work == &sign ? "C_Sign" : "C_Decrypt";

  [[nodiscard]] static std::string arguments(CK_SESSION_HANDLE session, CK_BYTE_PTR data, CK_ULONG dataLen,
                                             CK_BYTE_PTR output, CK_ULONG_PTR len) {
    return commaJoined({described(session), describedValue(data, dataLen),
                        (output ? "room " : "null ") + (len ? described(*len) : "null")});
  }

  static CK_RV call(CK_SESSION_HANDLE handle, CK_BYTE_PTR data, CK_ULONG dataLen, CK_BYTE_PTR output,
                    CK_ULONG_PTR len) {
    Session* session = nullptr;
    CK_RV rv = findSession(handle, session);
    if (rv == CKR_OK) {
      rv = useWithoutDeviation(work, kName, *session, operation, data, dataLen, output, len);
    }
    if (rv != CKR_OK) overwriteLength(kName, len);
    return rv;
  }

  static void afterFailure(CK_SESSION_HANDLE handle, CK_BYTE_PTR, CK_ULONG, CK_BYTE_PTR, CK_ULONG_PTR len) {
    Session* session = nullptr;
    if (findSession(handle, session) == CKR_OK) (session->*operation).reset();
    overwriteLength(kName, len);
  }
};

// ---- Signing ----

template <>
inline CK_RV Behaviour<&List::C_SignInit>::call(CK_SESSION_HANDLE session, CK_MECHANISM_PTR mechanism,
                                                CK_OBJECT_HANDLE key) {
  return begin(session, mechanism, key, CKA_SIGN, {CKM_RSA_PKCS, CKM_RSA_X_509, CKM_RSA_PKCS_PSS, CKM_ECDSA},
               &Session::signing);
}

template <>
struct Behaviour<&List::C_Sign> : Use<&List::C_Sign, &sign, &Session::signing> {};

// ---- Decrypting ----

template <>
inline CK_RV Behaviour<&List::C_DecryptInit>::call(CK_SESSION_HANDLE session, CK_MECHANISM_PTR mechanism,
                                                   CK_OBJECT_HANDLE key) {
  return begin(session, mechanism, key, CKA_DECRYPT, {CKM_RSA_PKCS}, &Session::decryption);
}

template <>
struct Behaviour<&List::C_Decrypt> : Use<&List::C_Decrypt, &decrypt, &Session::decryption> {};

// ---- Deriving ----

template <>
inline std::string Behaviour<&List::C_DeriveKey>::arguments(CK_SESSION_HANDLE session,
                                                            CK_MECHANISM_PTR mechanism,
                                                            CK_OBJECT_HANDLE baseKey,
                                                            CK_ATTRIBUTE_PTR attributes, CK_ULONG count,
                                                            CK_OBJECT_HANDLE_PTR key) {
  return commaJoined({described(session), describedMechanism(mechanism), described(baseKey),
                      describedTemplate(attributes, count)}) +
         (key ? "" : ", null");
}

template <>
inline CK_RV Behaviour<&List::C_DeriveKey>::call(CK_SESSION_HANDLE handle, CK_MECHANISM_PTR mechanism,
                                                 CK_OBJECT_HANDLE baseKey, CK_ATTRIBUTE_PTR attributes,
                                                 CK_ULONG count, CK_OBJECT_HANDLE_PTR key) {
  Session* session = nullptr;
  if (const CK_RV rv = findSession(handle, session); rv != CKR_OK) return rv;
  if (!mechanism || (!attributes && count > 0) || !key) return CKR_ARGUMENTS_BAD;
  if (mechanism->mechanism != CKM_ECDH1_DERIVE) return CKR_MECHANISM_INVALID;
  if (!mechanism->pParameter) return CKR_MECHANISM_PARAM_INVALID;
  const auto& ecdh = *static_cast<const CK_ECDH1_DERIVE_PARAMS*>(mechanism->pParameter);
  if (!ecdh.pPublicData || ecdh.ulPublicDataLen == 0 || ecdh.ulPublicDataLen > kMostBytes) {
    return CKR_MECHANISM_PARAM_INVALID;
  }
  if (const CK_RV rv = findPrivateKey(*session, baseKey, CKK_EC, CKA_DERIVE); rv != CKR_OK) return rv;

  Object derived;
  for (CK_ULONG i = 0; i < count; ++i) {
    const auto* const bytes = static_cast<const CK_BYTE*>(attributes[i].pValue);
    derived.attributes[attributes[i].type] = Value(bytes, bytes + attributes[i].ulValueLen);
  }
  const bool onToken = isTrue(derived, CKA_TOKEN);
  if (onToken && (session->flags & CKF_RW_SESSION) == 0) return CKR_SESSION_READ_ONLY;
  constexpr CK_ULONG kMostKeyBytes = 66;  // as many as the x coordinate of a P-521 point has
  CK_ULONG length = 1;
  while (length <= kMostKeyBytes && !has(derived, CKA_VALUE_LEN, ulongValue(length))) ++length;
  if (length > kMostKeyBytes) return CKR_TEMPLATE_INCOMPLETE;
  const Value publicData(ecdh.pPublicData, ecdh.pPublicData + ecdh.ulPublicDataLen);
  derived.attributes[CKA_VALUE] = resultOf(CKM_ECDH1_DERIVE, publicData, length);
  if (isTrue(derived, CKA_SENSITIVE)) derived.sensitive.insert(CKA_VALUE);

  *key = theScript().addObject(std::move(derived), session->slot);
  if (!onToken) session->objects.push_back(*key);
  return CKR_OK;
}

}  // namespace mirel::test
