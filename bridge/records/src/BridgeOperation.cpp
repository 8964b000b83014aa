#include "bridge/BridgeOperation.h"

namespace mirel {

const char* operationName(BridgeOperation operation) noexcept {
  switch (operation) {
    using enum BridgeOperation;
    case pkcs11_Initial: return "pkcs11_Initial";
    case pkcs11_Finalize: return "pkcs11_Finalize";
    case pkcs11_GetInfo: return "pkcs11_GetInfo";
    case pkcs11_C_GetSlotList: return "pkcs11_C_GetSlotList";
    case pkcs11_FindSlot: return "pkcs11_FindSlot";
    case pkcs11_GetTokenInfo: return "pkcs11_GetTokenInfo";
    case pkcs11_OpenReadOnlySession: return "pkcs11_OpenReadOnlySession";
    case pkcs11_GetSessionInfo: return "pkcs11_GetSessionInfo";
    case pkcs11_CloseSession: return "pkcs11_CloseSession";
    case pkcs11_UserLogin: return "pkcs11_UserLogin";
    case pkcs11_FindObjects: return "pkcs11_FindObjects";
    case pkcs11_getObjsAttriValue: return "pkcs11_getObjsAttriValue";
    case pkcs11_getRSAKeyModulus: return "pkcs11_getRSAKeyModulus";
    case pkcs11_getECPublicKey: return "pkcs11_getECPublicKey";
    case pkcs11_getCertificate: return "pkcs11_getCertificate";
    case pkcs11_getCorrespondingPrivateKey: return "pkcs11_getCorrespondingPrivateKey";
    case GetCertBlobByLabel: return "GetCertBlobByLabel";
    case pkcs11_genSignaturePKCS1: return "pkcs11_genSignaturePKCS1";
    case pkcs11_genSignaturePSS: return "pkcs11_genSignaturePSS";
    case pkcs11_genECDSA: return "pkcs11_genECDSA";
    case pkcs11_genDecryptPKCS1: return "pkcs11_genDecryptPKCS1";
    case pkcs11_genDecryptOAEP: return "pkcs11_genDecryptOAEP";
    case pkcs11_genSymKeyFromECDH: return "pkcs11_genSymKeyFromECDH";
  }
  return "?";
}

}  // namespace mirel
