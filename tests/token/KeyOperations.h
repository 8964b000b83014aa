#pragma once

#include <ostream>
#include <vector>

#include "token/TokenTest.h"

namespace mirel::test {

/// What a client can have done with a key, after the PIN: a row of the table that the tests go through.
struct KeyOperation {
  const char* name;
  Bytes (MirelSCTokenSession::*use)(TKSmartCardTokenSession&, const Bytes&, const Text&,
                                    const TKTokenKeyAlgorithm&, TKErrorPointer) noexcept;
  SecKeyAlgorithm algorithm;  ///< one that it is done with
  Value input;
  Value result;
  /// All algorithms that it is done with, in the order in which they are looked for.
  std::vector<SecKeyAlgorithm> algorithms;
  // Lines.
  const char* start;
  const char* choice;
  const char* keyNotFound;
  const char* notSupported;  ///< null: there is none
  // Calls of the module, in the session of the login.
  const char* initCall;
  const char* function;
};

/// Has the operation done with the card's key.
[[nodiscard]] inline Bytes useKey(FakeClient& of, const KeyOperation& operation,
                                  const TKTokenKeyAlgorithm& algorithm, TKErrorPointer outError = nullptr,
                                  const Text& keyObjectID = kKey) {
  return (*of.core.*operation.use)(of.platform, Bytes{operation.input}, keyObjectID, algorithm, outError);
}

/// Signing and decrypting.
[[nodiscard]] inline const std::vector<KeyOperation>& keyOperations() {
  using enum SecKeyAlgorithm;
  constexpr std::size_t kModulusLen = 256;  // bytes
  static const Value kBlock = patternValue(kModulusLen, 0x20);
  static const Value kPlainText = bytesOf("attack at dawn");
  static const std::vector<KeyOperation> kKeyOperations{
      {"Sign",
       &MirelSCTokenSession::signData,
       kSecKeyAlgorithmRSASignatureRaw,
       kBlock,
       resultOf(CKM_RSA_X_509, kBlock, kModulusLen),
       {kSecKeyAlgorithmRSASignatureRaw, kSecKeyAlgorithmRSASignatureDigestPKCS1v15Raw,
        kSecKeyAlgorithmECDSASignatureDigestX962SHA256, kSecKeyAlgorithmECDSASignatureDigestX962SHA384,
        kSecKeyAlgorithmECDSASignatureDigestX962SHA512},
       "default: CTK [MirelSCTokenSession-204] +++START+++",
       "default: CTK [MirelSCTokenSession-217] ",
       "error: [MirelSCTokenSession-211] signData key not found",
       "process: [MirelSCTokenSession-230] alogrithm not support, return nil.",
       "C_SignInit(9, CKM 3 null 0, 22)",
       "C_Sign"},
      {"Decrypt",
       &MirelSCTokenSession::decryptData,
       kSecKeyAlgorithmRSAEncryptionPKCS1,
       cipherOf(kPlainText),
       kPlainText,
       {kSecKeyAlgorithmRSAEncryptionRaw, kSecKeyAlgorithmRSAEncryptionPKCS1,
        kSecKeyAlgorithmRSAEncryptionOAEPSHA256, kSecKeyAlgorithmRSAEncryptionOAEPSHA384,
        kSecKeyAlgorithmRSAEncryptionOAEPSHA256AESGCM},
       "default: CTK [MirelSCTokenSession-255] +++START+++",
       "default: CTK [MirelSCTokenSession-271] ",
       "process: [MirelSCTokenSession-265] decryptData key not found",
       nullptr,
       "C_DecryptInit(9, CKM 1 null 0, 22)",
       "C_Decrypt"},
  };
  return kKeyOperations;
}

inline std::ostream& operator<<(std::ostream& out, const KeyOperation& operation) {
  return out << operation.name;
}

[[nodiscard]] inline std::string nameOfParameter(const ::testing::TestParamInfo<KeyOperation>& info) {
  return info.param.name;
}

// ---- The lines of the search for a key that may be used ----

inline constexpr const char* kGeneralStart = "default: CTK [MirelSCTokenSession-184] +++START+++";
inline constexpr const char* kAuthenticatedStart = "default: CTK [MirelSCTokenSession-157] +++START+++";
inline constexpr const char* kKeyIsNil = "error: keyItem is nil.";
inline constexpr const char* kNeeded =
    "process: [MirelSCTokenSession-170] Error Domain=CryptoTokenKit Code=-9 \"(null)\"";
inline constexpr const char* kAuthenticatedEnd = "default: CTK [MirelSCTokenSession-177] ---END---";
inline constexpr const char* kFailed = "process: [MirelSCTokenSession-187] keyObjectID = 01";
inline constexpr const char* kFailedNoKey = "process: [MirelSCTokenSession-187] keyObjectID = 99";
inline constexpr const char* kGeneralEnd = "default: CTK [MirelSCTokenSession-190] ---END---";

}  // namespace mirel::test
