#pragma once

/// The part of PKCS #11 v2.40 that this system uses: its types with the standard's names and field
/// order, the constants it needs, and the complete function list in the standard's order.
///
/// Structures have the platform's natural alignment (no packing), on both sides of the interface.
/// Sources: PKCS #11 Cryptographic Token Interface Base Specification v2.40, sections 3 to 5, and
/// PKCS #11 Cryptographic Token Interface Current Mechanisms v2.40.

extern "C" {

using CK_BYTE = unsigned char;
using CK_CHAR = CK_BYTE;
using CK_UTF8CHAR = CK_BYTE;
using CK_BBOOL = CK_BYTE;
using CK_ULONG = unsigned long;
using CK_LONG = long;
using CK_FLAGS = CK_ULONG;
using CK_RV = CK_ULONG;
using CK_SLOT_ID = CK_ULONG;
using CK_SESSION_HANDLE = CK_ULONG;
using CK_OBJECT_HANDLE = CK_ULONG;
using CK_OBJECT_CLASS = CK_ULONG;
using CK_KEY_TYPE = CK_ULONG;
using CK_CERTIFICATE_TYPE = CK_ULONG;
using CK_ATTRIBUTE_TYPE = CK_ULONG;
using CK_MECHANISM_TYPE = CK_ULONG;
using CK_STATE = CK_ULONG;
using CK_USER_TYPE = CK_ULONG;
using CK_NOTIFICATION = CK_ULONG;
using CK_RSA_PKCS_MGF_TYPE = CK_ULONG;
using CK_EC_KDF_TYPE = CK_ULONG;

using CK_BYTE_PTR = CK_BYTE*;
using CK_UTF8CHAR_PTR = CK_UTF8CHAR*;
using CK_ULONG_PTR = CK_ULONG*;
using CK_VOID_PTR = void*;
using CK_VOID_PTR_PTR = void**;
using CK_SLOT_ID_PTR = CK_SLOT_ID*;
using CK_SESSION_HANDLE_PTR = CK_SESSION_HANDLE*;
using CK_OBJECT_HANDLE_PTR = CK_OBJECT_HANDLE*;
using CK_MECHANISM_TYPE_PTR = CK_MECHANISM_TYPE*;

struct CK_VERSION {
  CK_BYTE major;
  CK_BYTE minor;
};

struct CK_INFO {
  CK_VERSION cryptokiVersion;
  CK_UTF8CHAR manufacturerID[32];
  CK_FLAGS flags;
  CK_UTF8CHAR libraryDescription[32];
  CK_VERSION libraryVersion;
};

struct CK_SLOT_INFO {
  CK_UTF8CHAR slotDescription[64];
  CK_UTF8CHAR manufacturerID[32];
  CK_FLAGS flags;
  CK_VERSION hardwareVersion;
  CK_VERSION firmwareVersion;
};

struct CK_TOKEN_INFO {
  CK_UTF8CHAR label[32];
  CK_UTF8CHAR manufacturerID[32];
  CK_UTF8CHAR model[16];
  CK_CHAR serialNumber[16];
  CK_FLAGS flags;
  CK_ULONG ulMaxSessionCount;
  CK_ULONG ulSessionCount;
  CK_ULONG ulMaxRwSessionCount;
  CK_ULONG ulRwSessionCount;
  CK_ULONG ulMaxPinLen;
  CK_ULONG ulMinPinLen;
  CK_ULONG ulTotalPublicMemory;
  CK_ULONG ulFreePublicMemory;
  CK_ULONG ulTotalPrivateMemory;
  CK_ULONG ulFreePrivateMemory;
  CK_VERSION hardwareVersion;
  CK_VERSION firmwareVersion;
  CK_CHAR utcTime[16];
};

struct CK_SESSION_INFO {
  CK_SLOT_ID slotID;
  CK_STATE state;
  CK_FLAGS flags;
  CK_ULONG ulDeviceError;
};

struct CK_ATTRIBUTE {
  CK_ATTRIBUTE_TYPE type;
  CK_VOID_PTR pValue;
  CK_ULONG ulValueLen;  ///< bytes
};

struct CK_MECHANISM {
  CK_MECHANISM_TYPE mechanism;
  CK_VOID_PTR pParameter;
  CK_ULONG ulParameterLen;  ///< bytes
};

struct CK_MECHANISM_INFO {
  CK_ULONG ulMinKeySize;
  CK_ULONG ulMaxKeySize;
  CK_FLAGS flags;
};

struct CK_RSA_PKCS_PSS_PARAMS {
  CK_MECHANISM_TYPE hashAlg;
  CK_RSA_PKCS_MGF_TYPE mgf;
  CK_ULONG sLen;  ///< bytes
};

struct CK_ECDH1_DERIVE_PARAMS {
  CK_EC_KDF_TYPE kdf;
  CK_ULONG ulSharedDataLen;
  CK_BYTE_PTR pSharedData;
  CK_ULONG ulPublicDataLen;
  CK_BYTE_PTR pPublicData;
};

using CK_ATTRIBUTE_PTR = CK_ATTRIBUTE*;
using CK_MECHANISM_PTR = CK_MECHANISM*;
using CK_MECHANISM_INFO_PTR = CK_MECHANISM_INFO*;
using CK_INFO_PTR = CK_INFO*;
using CK_SLOT_INFO_PTR = CK_SLOT_INFO*;
using CK_TOKEN_INFO_PTR = CK_TOKEN_INFO*;
using CK_SESSION_INFO_PTR = CK_SESSION_INFO*;

struct CK_FUNCTION_LIST;
using CK_FUNCTION_LIST_PTR = CK_FUNCTION_LIST*;
using CK_FUNCTION_LIST_PTR_PTR = CK_FUNCTION_LIST_PTR*;

using CK_NOTIFY = CK_RV (*)(CK_SESSION_HANDLE session, CK_NOTIFICATION event, CK_VOID_PTR application);
using CK_CREATEMUTEX = CK_RV (*)(CK_VOID_PTR_PTR mutex);
using CK_DESTROYMUTEX = CK_RV (*)(CK_VOID_PTR mutex);
using CK_LOCKMUTEX = CK_RV (*)(CK_VOID_PTR mutex);
using CK_UNLOCKMUTEX = CK_RV (*)(CK_VOID_PTR mutex);

struct CK_C_INITIALIZE_ARGS {
  CK_CREATEMUTEX CreateMutex;
  CK_DESTROYMUTEX DestroyMutex;
  CK_LOCKMUTEX LockMutex;
  CK_UNLOCKMUTEX UnlockMutex;
  CK_FLAGS flags;
  CK_VOID_PTR pReserved;
};

/// The module's exported entry point, "C_GetFunctionList".
using CK_C_GetFunctionList = CK_RV (*)(CK_FUNCTION_LIST_PTR_PTR list);

/// Every function of the interface, in the standard's order (section 5 of the base text).
struct CK_FUNCTION_LIST {
  CK_VERSION version;
  CK_RV (*C_Initialize)(CK_VOID_PTR initArgs);
  CK_RV (*C_Finalize)(CK_VOID_PTR reserved);
  CK_RV (*C_GetInfo)(CK_INFO_PTR info);
  CK_C_GetFunctionList C_GetFunctionList;
  CK_RV (*C_GetSlotList)(CK_BBOOL tokenPresent, CK_SLOT_ID_PTR slotList, CK_ULONG_PTR count);
  CK_RV (*C_GetSlotInfo)(CK_SLOT_ID slotID, CK_SLOT_INFO_PTR info);
  CK_RV (*C_GetTokenInfo)(CK_SLOT_ID slotID, CK_TOKEN_INFO_PTR info);
  CK_RV (*C_GetMechanismList)(CK_SLOT_ID slotID, CK_MECHANISM_TYPE_PTR list, CK_ULONG_PTR count);
  CK_RV (*C_GetMechanismInfo)(CK_SLOT_ID slotID, CK_MECHANISM_TYPE type, CK_MECHANISM_INFO_PTR info);
  CK_RV (*C_InitToken)(CK_SLOT_ID slotID, CK_UTF8CHAR_PTR pin, CK_ULONG pinLen, CK_UTF8CHAR_PTR label);
  CK_RV (*C_InitPIN)(CK_SESSION_HANDLE session, CK_UTF8CHAR_PTR pin, CK_ULONG pinLen);
  CK_RV(*C_SetPIN)
  (CK_SESSION_HANDLE session, CK_UTF8CHAR_PTR oldPin, CK_ULONG oldLen, CK_UTF8CHAR_PTR newPin,
   CK_ULONG newLen);
  CK_RV(*C_OpenSession)
  (CK_SLOT_ID slotID, CK_FLAGS flags, CK_VOID_PTR application, CK_NOTIFY notify,
   CK_SESSION_HANDLE_PTR session);
  CK_RV (*C_CloseSession)(CK_SESSION_HANDLE session);
  CK_RV (*C_CloseAllSessions)(CK_SLOT_ID slotID);
  CK_RV (*C_GetSessionInfo)(CK_SESSION_HANDLE session, CK_SESSION_INFO_PTR info);
  CK_RV (*C_GetOperationState)(CK_SESSION_HANDLE session, CK_BYTE_PTR state, CK_ULONG_PTR stateLen);
  CK_RV(*C_SetOperationState)
  (CK_SESSION_HANDLE session, CK_BYTE_PTR state, CK_ULONG stateLen, CK_OBJECT_HANDLE encryptionKey,
   CK_OBJECT_HANDLE authenticationKey);
  CK_RV (*C_Login)(CK_SESSION_HANDLE session, CK_USER_TYPE userType, CK_UTF8CHAR_PTR pin, CK_ULONG pinLen);
  CK_RV (*C_Logout)(CK_SESSION_HANDLE session);
  CK_RV(*C_CreateObject)
  (CK_SESSION_HANDLE session, CK_ATTRIBUTE_PTR attributes, CK_ULONG count, CK_OBJECT_HANDLE_PTR object);
  CK_RV(*C_CopyObject)
  (CK_SESSION_HANDLE session, CK_OBJECT_HANDLE object, CK_ATTRIBUTE_PTR attributes, CK_ULONG count,
   CK_OBJECT_HANDLE_PTR newObject);
  CK_RV (*C_DestroyObject)(CK_SESSION_HANDLE session, CK_OBJECT_HANDLE object);
  CK_RV (*C_GetObjectSize)(CK_SESSION_HANDLE session, CK_OBJECT_HANDLE object, CK_ULONG_PTR size);
  CK_RV(*C_GetAttributeValue)
  (CK_SESSION_HANDLE session, CK_OBJECT_HANDLE object, CK_ATTRIBUTE_PTR attributes, CK_ULONG count);
  CK_RV(*C_SetAttributeValue)
  (CK_SESSION_HANDLE session, CK_OBJECT_HANDLE object, CK_ATTRIBUTE_PTR attributes, CK_ULONG count);
  CK_RV (*C_FindObjectsInit)(CK_SESSION_HANDLE session, CK_ATTRIBUTE_PTR attributes, CK_ULONG count);
  CK_RV(*C_FindObjects)
  (CK_SESSION_HANDLE session, CK_OBJECT_HANDLE_PTR objects, CK_ULONG maxCount, CK_ULONG_PTR count);
  CK_RV (*C_FindObjectsFinal)(CK_SESSION_HANDLE session);
  CK_RV (*C_EncryptInit)(CK_SESSION_HANDLE session, CK_MECHANISM_PTR mechanism, CK_OBJECT_HANDLE key);
  CK_RV(*C_Encrypt)
  (CK_SESSION_HANDLE session, CK_BYTE_PTR data, CK_ULONG dataLen, CK_BYTE_PTR encrypted,
   CK_ULONG_PTR encryptedLen);
  CK_RV(*C_EncryptUpdate)
  (CK_SESSION_HANDLE session, CK_BYTE_PTR part, CK_ULONG partLen, CK_BYTE_PTR encrypted,
   CK_ULONG_PTR encryptedLen);
  CK_RV (*C_EncryptFinal)(CK_SESSION_HANDLE session, CK_BYTE_PTR lastPart, CK_ULONG_PTR lastPartLen);
  CK_RV (*C_DecryptInit)(CK_SESSION_HANDLE session, CK_MECHANISM_PTR mechanism, CK_OBJECT_HANDLE key);
  CK_RV(*C_Decrypt)
  (CK_SESSION_HANDLE session, CK_BYTE_PTR encrypted, CK_ULONG encryptedLen, CK_BYTE_PTR data,
   CK_ULONG_PTR dataLen);
  CK_RV(*C_DecryptUpdate)
  (CK_SESSION_HANDLE session, CK_BYTE_PTR encrypted, CK_ULONG encryptedLen, CK_BYTE_PTR part,
   CK_ULONG_PTR partLen);
  CK_RV (*C_DecryptFinal)(CK_SESSION_HANDLE session, CK_BYTE_PTR lastPart, CK_ULONG_PTR lastPartLen);
  CK_RV (*C_DigestInit)(CK_SESSION_HANDLE session, CK_MECHANISM_PTR mechanism);
  CK_RV(*C_Digest)
  (CK_SESSION_HANDLE session, CK_BYTE_PTR data, CK_ULONG dataLen, CK_BYTE_PTR digest, CK_ULONG_PTR digestLen);
  CK_RV (*C_DigestUpdate)(CK_SESSION_HANDLE session, CK_BYTE_PTR part, CK_ULONG partLen);
  CK_RV (*C_DigestKey)(CK_SESSION_HANDLE session, CK_OBJECT_HANDLE key);
  CK_RV (*C_DigestFinal)(CK_SESSION_HANDLE session, CK_BYTE_PTR digest, CK_ULONG_PTR digestLen);
  CK_RV (*C_SignInit)(CK_SESSION_HANDLE session, CK_MECHANISM_PTR mechanism, CK_OBJECT_HANDLE key);
  CK_RV(*C_Sign)
  (CK_SESSION_HANDLE session, CK_BYTE_PTR data, CK_ULONG dataLen, CK_BYTE_PTR signature,
   CK_ULONG_PTR signatureLen);
  CK_RV (*C_SignUpdate)(CK_SESSION_HANDLE session, CK_BYTE_PTR part, CK_ULONG partLen);
  CK_RV (*C_SignFinal)(CK_SESSION_HANDLE session, CK_BYTE_PTR signature, CK_ULONG_PTR signatureLen);
  CK_RV (*C_SignRecoverInit)(CK_SESSION_HANDLE session, CK_MECHANISM_PTR mechanism, CK_OBJECT_HANDLE key);
  CK_RV(*C_SignRecover)
  (CK_SESSION_HANDLE session, CK_BYTE_PTR data, CK_ULONG dataLen, CK_BYTE_PTR signature,
   CK_ULONG_PTR signatureLen);
  CK_RV (*C_VerifyInit)(CK_SESSION_HANDLE session, CK_MECHANISM_PTR mechanism, CK_OBJECT_HANDLE key);
  CK_RV(*C_Verify)
  (CK_SESSION_HANDLE session, CK_BYTE_PTR data, CK_ULONG dataLen, CK_BYTE_PTR signature,
   CK_ULONG signatureLen);
  CK_RV (*C_VerifyUpdate)(CK_SESSION_HANDLE session, CK_BYTE_PTR part, CK_ULONG partLen);
  CK_RV (*C_VerifyFinal)(CK_SESSION_HANDLE session, CK_BYTE_PTR signature, CK_ULONG signatureLen);
  CK_RV (*C_VerifyRecoverInit)(CK_SESSION_HANDLE session, CK_MECHANISM_PTR mechanism, CK_OBJECT_HANDLE key);
  CK_RV(*C_VerifyRecover)
  (CK_SESSION_HANDLE session, CK_BYTE_PTR signature, CK_ULONG signatureLen, CK_BYTE_PTR data,
   CK_ULONG_PTR dataLen);
  CK_RV(*C_DigestEncryptUpdate)
  (CK_SESSION_HANDLE session, CK_BYTE_PTR part, CK_ULONG partLen, CK_BYTE_PTR encrypted,
   CK_ULONG_PTR encryptedLen);
  CK_RV(*C_DecryptDigestUpdate)
  (CK_SESSION_HANDLE session, CK_BYTE_PTR encrypted, CK_ULONG encryptedLen, CK_BYTE_PTR part,
   CK_ULONG_PTR partLen);
  CK_RV(*C_SignEncryptUpdate)
  (CK_SESSION_HANDLE session, CK_BYTE_PTR part, CK_ULONG partLen, CK_BYTE_PTR encrypted,
   CK_ULONG_PTR encryptedLen);
  CK_RV(*C_DecryptVerifyUpdate)
  (CK_SESSION_HANDLE session, CK_BYTE_PTR encrypted, CK_ULONG encryptedLen, CK_BYTE_PTR part,
   CK_ULONG_PTR partLen);
  CK_RV(*C_GenerateKey)
  (CK_SESSION_HANDLE session, CK_MECHANISM_PTR mechanism, CK_ATTRIBUTE_PTR attributes, CK_ULONG count,
   CK_OBJECT_HANDLE_PTR key);
  CK_RV(*C_GenerateKeyPair)
  (CK_SESSION_HANDLE session, CK_MECHANISM_PTR mechanism, CK_ATTRIBUTE_PTR publicAttributes,
   CK_ULONG publicCount, CK_ATTRIBUTE_PTR privateAttributes, CK_ULONG privateCount,
   CK_OBJECT_HANDLE_PTR publicKey, CK_OBJECT_HANDLE_PTR privateKey);
  CK_RV(*C_WrapKey)
  (CK_SESSION_HANDLE session, CK_MECHANISM_PTR mechanism, CK_OBJECT_HANDLE wrappingKey, CK_OBJECT_HANDLE key,
   CK_BYTE_PTR wrapped, CK_ULONG_PTR wrappedLen);
  CK_RV(*C_UnwrapKey)
  (CK_SESSION_HANDLE session, CK_MECHANISM_PTR mechanism, CK_OBJECT_HANDLE unwrappingKey, CK_BYTE_PTR wrapped,
   CK_ULONG wrappedLen, CK_ATTRIBUTE_PTR attributes, CK_ULONG count, CK_OBJECT_HANDLE_PTR key);
  CK_RV(*C_DeriveKey)
  (CK_SESSION_HANDLE session, CK_MECHANISM_PTR mechanism, CK_OBJECT_HANDLE baseKey,
   CK_ATTRIBUTE_PTR attributes, CK_ULONG count, CK_OBJECT_HANDLE_PTR key);
  CK_RV (*C_SeedRandom)(CK_SESSION_HANDLE session, CK_BYTE_PTR seed, CK_ULONG seedLen);
  CK_RV (*C_GenerateRandom)(CK_SESSION_HANDLE session, CK_BYTE_PTR random, CK_ULONG randomLen);
  CK_RV (*C_GetFunctionStatus)(CK_SESSION_HANDLE session);
  CK_RV (*C_CancelFunction)(CK_SESSION_HANDLE session);
  CK_RV (*C_WaitForSlotEvent)(CK_FLAGS flags, CK_SLOT_ID_PTR slot, CK_VOID_PTR reserved);
};

}  // extern "C"

inline constexpr CK_BBOOL CK_FALSE = 0;
inline constexpr CK_BBOOL CK_TRUE = 1;
inline constexpr CK_ULONG CK_UNAVAILABLE_INFORMATION = ~0UL;
inline constexpr CK_ULONG CK_EFFECTIVELY_INFINITE = 0;

inline constexpr CK_OBJECT_CLASS CKO_DATA = 0x0;
inline constexpr CK_OBJECT_CLASS CKO_CERTIFICATE = 0x1;
inline constexpr CK_OBJECT_CLASS CKO_PUBLIC_KEY = 0x2;
inline constexpr CK_OBJECT_CLASS CKO_PRIVATE_KEY = 0x3;
inline constexpr CK_OBJECT_CLASS CKO_SECRET_KEY = 0x4;

inline constexpr CK_KEY_TYPE CKK_RSA = 0x0;
inline constexpr CK_KEY_TYPE CKK_DSA = 0x1;
inline constexpr CK_KEY_TYPE CKK_EC = 0x3;
inline constexpr CK_KEY_TYPE CKK_GENERIC_SECRET = 0x10;

inline constexpr CK_CERTIFICATE_TYPE CKC_X_509 = 0x0;

inline constexpr CK_ATTRIBUTE_TYPE CKA_CLASS = 0x0;
inline constexpr CK_ATTRIBUTE_TYPE CKA_TOKEN = 0x1;
inline constexpr CK_ATTRIBUTE_TYPE CKA_PRIVATE = 0x2;
inline constexpr CK_ATTRIBUTE_TYPE CKA_LABEL = 0x3;
inline constexpr CK_ATTRIBUTE_TYPE CKA_VALUE = 0x11;
inline constexpr CK_ATTRIBUTE_TYPE CKA_CERTIFICATE_TYPE = 0x80;
inline constexpr CK_ATTRIBUTE_TYPE CKA_ISSUER = 0x81;
inline constexpr CK_ATTRIBUTE_TYPE CKA_SERIAL_NUMBER = 0x82;
inline constexpr CK_ATTRIBUTE_TYPE CKA_KEY_TYPE = 0x100;
inline constexpr CK_ATTRIBUTE_TYPE CKA_SUBJECT = 0x101;
inline constexpr CK_ATTRIBUTE_TYPE CKA_ID = 0x102;
inline constexpr CK_ATTRIBUTE_TYPE CKA_SENSITIVE = 0x103;
inline constexpr CK_ATTRIBUTE_TYPE CKA_ENCRYPT = 0x104;
inline constexpr CK_ATTRIBUTE_TYPE CKA_DECRYPT = 0x105;
inline constexpr CK_ATTRIBUTE_TYPE CKA_SIGN = 0x108;
inline constexpr CK_ATTRIBUTE_TYPE CKA_VERIFY = 0x10A;
inline constexpr CK_ATTRIBUTE_TYPE CKA_DERIVE = 0x10C;
inline constexpr CK_ATTRIBUTE_TYPE CKA_MODULUS = 0x120;
inline constexpr CK_ATTRIBUTE_TYPE CKA_MODULUS_BITS = 0x121;
inline constexpr CK_ATTRIBUTE_TYPE CKA_PUBLIC_EXPONENT = 0x122;
inline constexpr CK_ATTRIBUTE_TYPE CKA_PRIVATE_EXPONENT = 0x123;
inline constexpr CK_ATTRIBUTE_TYPE CKA_VALUE_LEN = 0x161;
inline constexpr CK_ATTRIBUTE_TYPE CKA_EXTRACTABLE = 0x162;
inline constexpr CK_ATTRIBUTE_TYPE CKA_EC_PARAMS = 0x180;
inline constexpr CK_ATTRIBUTE_TYPE CKA_EC_POINT = 0x181;
inline constexpr CK_ATTRIBUTE_TYPE CKA_ALWAYS_AUTHENTICATE = 0x202;

inline constexpr CK_USER_TYPE CKU_SO = 0;
inline constexpr CK_USER_TYPE CKU_USER = 1;

inline constexpr CK_STATE CKS_RO_PUBLIC_SESSION = 0;
inline constexpr CK_STATE CKS_RO_USER_FUNCTIONS = 1;
inline constexpr CK_STATE CKS_RW_PUBLIC_SESSION = 2;
inline constexpr CK_STATE CKS_RW_USER_FUNCTIONS = 3;
inline constexpr CK_STATE CKS_RW_SO_FUNCTIONS = 4;

// Slot flags.
inline constexpr CK_FLAGS CKF_TOKEN_PRESENT = 0x1;
inline constexpr CK_FLAGS CKF_REMOVABLE_DEVICE = 0x2;
inline constexpr CK_FLAGS CKF_HW_SLOT = 0x4;

// Token flags.
inline constexpr CK_FLAGS CKF_RNG = 0x1;
inline constexpr CK_FLAGS CKF_WRITE_PROTECTED = 0x2;
inline constexpr CK_FLAGS CKF_LOGIN_REQUIRED = 0x4;
inline constexpr CK_FLAGS CKF_USER_PIN_INITIALIZED = 0x8;
inline constexpr CK_FLAGS CKF_RESTORE_KEY_NOT_NEEDED = 0x20;
inline constexpr CK_FLAGS CKF_CLOCK_ON_TOKEN = 0x40;
inline constexpr CK_FLAGS CKF_PROTECTED_AUTHENTICATION_PATH = 0x100;
inline constexpr CK_FLAGS CKF_DUAL_CRYPTO_OPERATIONS = 0x200;
inline constexpr CK_FLAGS CKF_TOKEN_INITIALIZED = 0x400;
inline constexpr CK_FLAGS CKF_SECONDARY_AUTHENTICATION = 0x800;
inline constexpr CK_FLAGS CKF_USER_PIN_COUNT_LOW = 0x10000;
inline constexpr CK_FLAGS CKF_USER_PIN_FINAL_TRY = 0x20000;
inline constexpr CK_FLAGS CKF_USER_PIN_LOCKED = 0x40000;
inline constexpr CK_FLAGS CKF_USER_PIN_TO_BE_CHANGED = 0x80000;
inline constexpr CK_FLAGS CKF_SO_PIN_COUNT_LOW = 0x100000;
inline constexpr CK_FLAGS CKF_SO_PIN_FINAL_TRY = 0x200000;
inline constexpr CK_FLAGS CKF_SO_PIN_LOCKED = 0x400000;
inline constexpr CK_FLAGS CKF_SO_PIN_TO_BE_CHANGED = 0x800000;
inline constexpr CK_FLAGS CKF_ERROR_STATE = 0x1000000;

// Session flags.
inline constexpr CK_FLAGS CKF_RW_SESSION = 0x2;
inline constexpr CK_FLAGS CKF_SERIAL_SESSION = 0x4;

inline constexpr CK_MECHANISM_TYPE CKM_RSA_PKCS_KEY_PAIR_GEN = 0x0;
inline constexpr CK_MECHANISM_TYPE CKM_RSA_PKCS = 0x1;
inline constexpr CK_MECHANISM_TYPE CKM_RSA_X_509 = 0x3;
inline constexpr CK_MECHANISM_TYPE CKM_RSA_PKCS_PSS = 0xD;
inline constexpr CK_MECHANISM_TYPE CKM_SHA_1 = 0x220;
inline constexpr CK_MECHANISM_TYPE CKM_SHA256 = 0x250;
inline constexpr CK_MECHANISM_TYPE CKM_SHA224 = 0x255;
inline constexpr CK_MECHANISM_TYPE CKM_SHA384 = 0x260;
inline constexpr CK_MECHANISM_TYPE CKM_SHA512 = 0x270;
inline constexpr CK_MECHANISM_TYPE CKM_ECDSA = 0x1041;
inline constexpr CK_MECHANISM_TYPE CKM_ECDH1_DERIVE = 0x1050;

inline constexpr CK_RSA_PKCS_MGF_TYPE CKG_MGF1_SHA1 = 0x1;
inline constexpr CK_RSA_PKCS_MGF_TYPE CKG_MGF1_SHA256 = 0x2;
inline constexpr CK_RSA_PKCS_MGF_TYPE CKG_MGF1_SHA384 = 0x3;
inline constexpr CK_RSA_PKCS_MGF_TYPE CKG_MGF1_SHA512 = 0x4;
inline constexpr CK_RSA_PKCS_MGF_TYPE CKG_MGF1_SHA224 = 0x5;

inline constexpr CK_EC_KDF_TYPE CKD_NULL = 0x1;

// Return values, all of the standard's.
inline constexpr CK_RV CKR_OK = 0x0;
inline constexpr CK_RV CKR_CANCEL = 0x1;
inline constexpr CK_RV CKR_HOST_MEMORY = 0x2;
inline constexpr CK_RV CKR_SLOT_ID_INVALID = 0x3;
inline constexpr CK_RV CKR_GENERAL_ERROR = 0x5;
inline constexpr CK_RV CKR_FUNCTION_FAILED = 0x6;
inline constexpr CK_RV CKR_ARGUMENTS_BAD = 0x7;
inline constexpr CK_RV CKR_NO_EVENT = 0x8;
inline constexpr CK_RV CKR_NEED_TO_CREATE_THREADS = 0x9;
inline constexpr CK_RV CKR_CANT_LOCK = 0xA;
inline constexpr CK_RV CKR_ATTRIBUTE_READ_ONLY = 0x10;
inline constexpr CK_RV CKR_ATTRIBUTE_SENSITIVE = 0x11;
inline constexpr CK_RV CKR_ATTRIBUTE_TYPE_INVALID = 0x12;
inline constexpr CK_RV CKR_ATTRIBUTE_VALUE_INVALID = 0x13;
inline constexpr CK_RV CKR_ACTION_PROHIBITED = 0x1B;
inline constexpr CK_RV CKR_DATA_INVALID = 0x20;
inline constexpr CK_RV CKR_DATA_LEN_RANGE = 0x21;
inline constexpr CK_RV CKR_DEVICE_ERROR = 0x30;
inline constexpr CK_RV CKR_DEVICE_MEMORY = 0x31;
inline constexpr CK_RV CKR_DEVICE_REMOVED = 0x32;
inline constexpr CK_RV CKR_ENCRYPTED_DATA_INVALID = 0x40;
inline constexpr CK_RV CKR_ENCRYPTED_DATA_LEN_RANGE = 0x41;
inline constexpr CK_RV CKR_FUNCTION_CANCELED = 0x50;
inline constexpr CK_RV CKR_FUNCTION_NOT_PARALLEL = 0x51;
inline constexpr CK_RV CKR_FUNCTION_NOT_SUPPORTED = 0x54;
inline constexpr CK_RV CKR_KEY_HANDLE_INVALID = 0x60;
inline constexpr CK_RV CKR_KEY_SIZE_RANGE = 0x62;
inline constexpr CK_RV CKR_KEY_TYPE_INCONSISTENT = 0x63;
inline constexpr CK_RV CKR_KEY_NOT_NEEDED = 0x64;
inline constexpr CK_RV CKR_KEY_CHANGED = 0x65;
inline constexpr CK_RV CKR_KEY_NEEDED = 0x66;
inline constexpr CK_RV CKR_KEY_INDIGESTIBLE = 0x67;
inline constexpr CK_RV CKR_KEY_FUNCTION_NOT_PERMITTED = 0x68;
inline constexpr CK_RV CKR_KEY_NOT_WRAPPABLE = 0x69;
inline constexpr CK_RV CKR_KEY_UNEXTRACTABLE = 0x6A;
inline constexpr CK_RV CKR_MECHANISM_INVALID = 0x70;
inline constexpr CK_RV CKR_MECHANISM_PARAM_INVALID = 0x71;
inline constexpr CK_RV CKR_OBJECT_HANDLE_INVALID = 0x82;
inline constexpr CK_RV CKR_OPERATION_ACTIVE = 0x90;
inline constexpr CK_RV CKR_OPERATION_NOT_INITIALIZED = 0x91;
inline constexpr CK_RV CKR_PIN_INCORRECT = 0xA0;
inline constexpr CK_RV CKR_PIN_INVALID = 0xA1;
inline constexpr CK_RV CKR_PIN_LEN_RANGE = 0xA2;
inline constexpr CK_RV CKR_PIN_EXPIRED = 0xA3;
inline constexpr CK_RV CKR_PIN_LOCKED = 0xA4;
inline constexpr CK_RV CKR_SESSION_CLOSED = 0xB0;
inline constexpr CK_RV CKR_SESSION_COUNT = 0xB1;
inline constexpr CK_RV CKR_SESSION_HANDLE_INVALID = 0xB3;
inline constexpr CK_RV CKR_SESSION_PARALLEL_NOT_SUPPORTED = 0xB4;
inline constexpr CK_RV CKR_SESSION_READ_ONLY = 0xB5;
inline constexpr CK_RV CKR_SESSION_EXISTS = 0xB6;
inline constexpr CK_RV CKR_SESSION_READ_ONLY_EXISTS = 0xB7;
inline constexpr CK_RV CKR_SESSION_READ_WRITE_SO_EXISTS = 0xB8;
inline constexpr CK_RV CKR_SIGNATURE_INVALID = 0xC0;
inline constexpr CK_RV CKR_SIGNATURE_LEN_RANGE = 0xC1;
inline constexpr CK_RV CKR_TEMPLATE_INCOMPLETE = 0xD0;
inline constexpr CK_RV CKR_TEMPLATE_INCONSISTENT = 0xD1;
inline constexpr CK_RV CKR_TOKEN_NOT_PRESENT = 0xE0;
inline constexpr CK_RV CKR_TOKEN_NOT_RECOGNIZED = 0xE1;
inline constexpr CK_RV CKR_TOKEN_WRITE_PROTECTED = 0xE2;
inline constexpr CK_RV CKR_UNWRAPPING_KEY_HANDLE_INVALID = 0xF0;
inline constexpr CK_RV CKR_UNWRAPPING_KEY_SIZE_RANGE = 0xF1;
inline constexpr CK_RV CKR_UNWRAPPING_KEY_TYPE_INCONSISTENT = 0xF2;
inline constexpr CK_RV CKR_USER_ALREADY_LOGGED_IN = 0x100;
inline constexpr CK_RV CKR_USER_NOT_LOGGED_IN = 0x101;
inline constexpr CK_RV CKR_USER_PIN_NOT_INITIALIZED = 0x102;
inline constexpr CK_RV CKR_USER_TYPE_INVALID = 0x103;
inline constexpr CK_RV CKR_USER_ANOTHER_ALREADY_LOGGED_IN = 0x104;
inline constexpr CK_RV CKR_USER_TOO_MANY_TYPES = 0x105;
inline constexpr CK_RV CKR_WRAPPED_KEY_INVALID = 0x110;
inline constexpr CK_RV CKR_WRAPPED_KEY_LEN_RANGE = 0x112;
inline constexpr CK_RV CKR_WRAPPING_KEY_HANDLE_INVALID = 0x113;
inline constexpr CK_RV CKR_WRAPPING_KEY_SIZE_RANGE = 0x114;
inline constexpr CK_RV CKR_WRAPPING_KEY_TYPE_INCONSISTENT = 0x115;
inline constexpr CK_RV CKR_RANDOM_SEED_NOT_SUPPORTED = 0x120;
inline constexpr CK_RV CKR_RANDOM_NO_RNG = 0x121;
inline constexpr CK_RV CKR_DOMAIN_PARAMS_INVALID = 0x130;
inline constexpr CK_RV CKR_CURVE_NOT_SUPPORTED = 0x140;
inline constexpr CK_RV CKR_BUFFER_TOO_SMALL = 0x150;
inline constexpr CK_RV CKR_SAVED_STATE_INVALID = 0x160;
inline constexpr CK_RV CKR_INFORMATION_SENSITIVE = 0x170;
inline constexpr CK_RV CKR_STATE_UNSAVEABLE = 0x180;
inline constexpr CK_RV CKR_CRYPTOKI_NOT_INITIALIZED = 0x190;
inline constexpr CK_RV CKR_CRYPTOKI_ALREADY_INITIALIZED = 0x191;
inline constexpr CK_RV CKR_MUTEX_BAD = 0x1A0;
inline constexpr CK_RV CKR_MUTEX_NOT_LOCKED = 0x1A1;
inline constexpr CK_RV CKR_NEW_PIN_MODE = 0x1B0;
inline constexpr CK_RV CKR_NEXT_OTP = 0x1B1;
inline constexpr CK_RV CKR_EXCEEDED_MAX_ITERATIONS = 0x1C0;
inline constexpr CK_RV CKR_FIPS_SELF_TEST_FAILED = 0x1C1;
inline constexpr CK_RV CKR_LIBRARY_LOAD_FAILED = 0x1C2;
inline constexpr CK_RV CKR_PIN_TOO_WEAK = 0x1C3;
inline constexpr CK_RV CKR_PUBLIC_KEY_INVALID = 0x1C4;
inline constexpr CK_RV CKR_FUNCTION_REJECTED = 0x200;
inline constexpr CK_RV CKR_VENDOR_DEFINED = 0x80000000;
