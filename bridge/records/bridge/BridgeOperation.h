#pragma once

#include <cstdint>

namespace mirel {

/// The operations of P11Bridge that answer a code and are told to the observer, by their own names.
enum class BridgeOperation : std::uint8_t {
  pkcs11_Initial,
  pkcs11_Finalize,
  pkcs11_GetInfo,
  pkcs11_C_GetSlotList,
  pkcs11_FindSlot,
  pkcs11_GetTokenInfo,
  pkcs11_OpenReadOnlySession,
  pkcs11_GetSessionInfo,
  pkcs11_CloseSession,
  pkcs11_UserLogin,
  pkcs11_FindObjects,
  pkcs11_getObjsAttriValue,
  pkcs11_getRSAKeyModulus,
  pkcs11_getECPublicKey,
  pkcs11_getCertificate,
  pkcs11_getCorrespondingPrivateKey,
  GetCertBlobByLabel,
  pkcs11_genSignaturePKCS1,
  pkcs11_genSignaturePSS,
  pkcs11_genECDSA,
  pkcs11_genDecryptPKCS1,
  pkcs11_genDecryptOAEP,
  pkcs11_genSymKeyFromECDH,
};

/// The operation's name ("pkcs11_FindSlot"); "?" for a number that is none.
[[nodiscard]] const char* operationName(BridgeOperation operation) noexcept;

}  // namespace mirel
