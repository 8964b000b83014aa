#pragma once

/// Signing and decrypting: one table of operations for all that they have in common.

#include <algorithm>
#include <optional>
#include <ostream>

#include "BridgeTest.h"

namespace mirel::test {

/// What every cipher text is decrypted to.
inline const Value kPlain = patternValue(100, 0x60);

struct Arguments {
  CK_SESSION_HANDLE session = kFirstSession;
  CK_OBJECT_HANDLE object = 0;
  CK_MECHANISM_TYPE hash = CKM_SHA256;
  std::uint32_t keySize = 256;
  const CK_BYTE* data = nullptr;
  CK_ULONG dataLen = 0;
  CK_BYTE* output = nullptr;
  CK_ULONG* length = nullptr;
  CK_ULONG capacity = 0;
};

/// An operation that has the module write a result.
struct KeyOperation {
  const char* name;
  const char* operation;  ///< as the observer is told
  CK_OBJECT_HANDLE object;
  const char* function;  ///< that writes the result
  CK_MECHANISM_TYPE mechanism;
  CK_RV tooLong;      ///< what a result longer than the buffer is answered with
  bool readsModulus;  ///< and announces its length; else the caller's length is announced
  CK_RV (*run)(P11Bridge&, const Arguments&);
  bool looksAtHash = false;

  [[nodiscard]] bool signs() const { return function == std::string_view{"C_Sign"}; }
  [[nodiscard]] bool looksKeyUp() const { return mechanism != CKM_RSA_X_509; }
};

inline const KeyOperation kOperations[] = {
    {"RawSignature", "pkcs11_genSignaturePKCS1", kPrivateKey, "C_Sign", CKM_RSA_X_509, CKR_SIGNATURE_INVALID,
     false,
     [](P11Bridge& bridge, const Arguments& a) {
       return bridge.pkcs11_genSignaturePKCS1(a.session, a.object, a.data, a.dataLen, a.output, a.length,
                                              a.capacity);
     }},
    {"PssSignature", "pkcs11_genSignaturePSS", kPublicKey, "C_Sign", CKM_RSA_PKCS_PSS,
     CKR_SIGNATURE_LEN_RANGE, true,
     [](P11Bridge& bridge, const Arguments& a) {
       return bridge.pkcs11_genSignaturePSS(a.session, a.object, a.hash, a.data, a.dataLen, a.output,
                                            a.length, a.capacity);
     },
     true},
    {"EcdsaSignature", "pkcs11_genECDSA", kEcPublicKey, "C_Sign", CKM_ECDSA, CKR_SIGNATURE_LEN_RANGE, false,
     [](P11Bridge& bridge, const Arguments& a) {
       return bridge.pkcs11_genECDSA(a.session, a.object, a.keySize, a.data, a.dataLen, a.output, a.length,
                                     a.capacity);
     }},
    {"PKCS1Decryption", "pkcs11_genDecryptPKCS1", kPublicKey, "C_Decrypt", CKM_RSA_PKCS,
     CKR_ENCRYPTED_DATA_LEN_RANGE, true,
     [](P11Bridge& bridge, const Arguments& a) {
       return bridge.pkcs11_genDecryptPKCS1(a.session, a.object, a.data, a.dataLen, a.output, a.length,
                                            a.capacity);
     }},
    {"OAEPDecryption", "pkcs11_genDecryptOAEP", kPublicKey, "C_Decrypt", CKM_RSA_PKCS,
     CKR_ENCRYPTED_DATA_LEN_RANGE, true,
     [](P11Bridge& bridge, const Arguments& a) {
       return bridge.pkcs11_genDecryptOAEP(a.session, a.object, a.data, a.dataLen, a.hash, a.output, a.length,
                                           a.capacity);
     },
     true},
};

inline void PrintTo(const KeyOperation& operation, std::ostream* out) { *out << operation.name; }

class KeyOperations : public SessionTest, public ::testing::WithParamInterface<KeyOperation> {
 protected:
  void SetUp() override {
    SessionTest::SetUp();
    script.deviations.plainText = kPlain;
  }
  void startAnewWithPlainText() {
    startAnew();
    script.deviations.plainText = kPlain;
  }

  [[nodiscard]] Arguments arguments(ResultBuffer& output) {
    return {.object = GetParam().object,
            .data = data.data(),
            .dataLen = data.size(),
            .output = output.data(),
            .length = &length,
            .capacity = output.capacity()};
  }
  CK_RV run(const Arguments& with) { return GetParam().run(bridge, with); }
  CK_RV run(ResultBuffer& output) { return run(arguments(output)); }
  /// Makes the operation announce that room, and runs it.
  CK_RV runWithRoom(CK_ULONG room, ResultBuffer& output) {
    length = room;
    if (GetParam().readsModulus) script.deviations.claimedLengths[CKA_MODULUS] = {room};
    return run(output);
  }

  /// The module writes that many bytes, if the room goes that far, and says it were `claimed`.
  void claim(CK_ULONG claimed, std::optional<CK_ULONG> written = std::nullopt) {
    script.deviations.claimedResults[GetParam().function] = {claimed, written};
  }
  /// What the module writes when it is left alone.
  [[nodiscard]] Value result() const {
    if (!GetParam().signs()) return kPlain;
    return resultOf(GetParam().mechanism, data, GetParam().mechanism == CKM_ECDSA ? 64 : 256);
  }
  /// The first `size` bytes of what the module writes when it claims more.
  [[nodiscard]] Value resultAndFiller(std::size_t size) const {
    Value bytes = result();
    bytes.resize(size, 0xEE);
    return bytes;
  }
  [[nodiscard]] std::size_t numBegun() const {
    return script.countOf("C_SignInit") + script.countOf("C_DecryptInit");
  }
  void setModulusLen(std::size_t size) {
    for (const CK_OBJECT_HANDLE key : {kPublicKey, kPrivateKey}) {
      script.object(key).attributes[CKA_MODULUS] = patternValue(size, 0xC5);
    }
  }

  const Value data = patternValue(32, 0x41);
  CK_ULONG length = 512;
};

}  // namespace mirel::test
