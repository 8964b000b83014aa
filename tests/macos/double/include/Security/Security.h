#pragma once

/// What is used of the Security framework.

#import <CoreFoundation/CoreFoundation.h>

#ifdef __cplusplus
extern "C" {
#endif

NS_ASSUME_NONNULL_BEGIN

// ---- Certificates ----

typedef struct __SecCertificate* SecCertificateRef;
typedef struct __SecKey* SecKeyRef;

/// The caller's; null unless `der` begins with the DER encoding of an X.509 certificate.
extern SecCertificateRef _Nullable SecCertificateCreateWithData(CFAllocatorRef _Nullable allocator,
                                                                CFDataRef der);
/// The caller's; null, and an error for the caller, on failure. `oids`: the entries to give; null: all.
extern CFDictionaryRef _Nullable SecCertificateCopyValues(SecCertificateRef certificate,
                                                          CFArrayRef _Nullable oids,
                                                          CFErrorRef _Nullable* _Nullable outError);

/// The caller's; a short text that tells whose certificate it is.
extern CFStringRef _Nullable SecCertificateCopySubjectSummary(SecCertificateRef certificate);
/// The caller's; null for a key that the platform does not know.
extern SecKeyRef _Nullable SecCertificateCopyKey(SecCertificateRef certificate);

extern const CFStringRef kSecOIDKeyUsage;
extern const CFStringRef kSecOIDX509V1ValidityNotAfter;
extern const CFStringRef kSecPropertyKeyValue;

extern const CFStringRef kSecAttrKeyType;
extern const CFStringRef kSecAttrKeySizeInBits;
extern const CFStringRef kSecAttrKeyTypeRSA;
extern const CFStringRef kSecAttrKeyTypeECSECPrimeRandom;

// ---- Algorithms ----

typedef CFStringRef SecKeyAlgorithm;

#define DOUBLE_SHA2_FAMILY(X, before, after) \
  X(before##SHA224##after) X(before##SHA256##after) X(before##SHA384##after) X(before##SHA512##after)
#define DOUBLE_HASH_FAMILY(X, before, after) X(before##SHA1##after) DOUBLE_SHA2_FAMILY(X, before, after)

/// X(name) for each algorithm, the name without its prefix kSecKeyAlgorithm.
#define DOUBLE_SEC_KEY_ALGORITHMS(X)                                   \
  X(RSAEncryptionRaw)                                                  \
  X(RSASignatureRaw)                                                   \
  X(RSASignatureDigestPKCS1v15Raw)                                     \
  DOUBLE_HASH_FAMILY(X, RSASignatureDigestPKCS1v15, )                  \
  DOUBLE_HASH_FAMILY(X, RSASignatureMessagePKCS1v15, )                 \
  DOUBLE_HASH_FAMILY(X, RSASignatureDigestPSS, )                       \
  DOUBLE_HASH_FAMILY(X, RSASignatureMessagePSS, )                      \
  X(ECDSASignatureRFC4754)                                             \
  X(ECDSASignatureDigestX962)                                          \
  DOUBLE_HASH_FAMILY(X, ECDSASignatureDigestX962, )                    \
  DOUBLE_HASH_FAMILY(X, ECDSASignatureMessageX962, )                   \
  X(RSAEncryptionPKCS1)                                                \
  DOUBLE_HASH_FAMILY(X, RSAEncryptionOAEP, )                           \
  DOUBLE_HASH_FAMILY(X, RSAEncryptionOAEP, AESGCM)                     \
  DOUBLE_HASH_FAMILY(X, ECIESEncryptionStandardX963, AESGCM)           \
  DOUBLE_HASH_FAMILY(X, ECIESEncryptionCofactorX963, AESGCM)           \
  DOUBLE_SHA2_FAMILY(X, ECIESEncryptionStandardVariableIVX963, AESGCM) \
  DOUBLE_SHA2_FAMILY(X, ECIESEncryptionCofactorVariableIVX963, AESGCM) \
  X(ECDHKeyExchangeStandard)                                           \
  DOUBLE_HASH_FAMILY(X, ECDHKeyExchangeStandardX963, )                 \
  X(ECDHKeyExchangeCofactor)                                           \
  DOUBLE_HASH_FAMILY(X, ECDHKeyExchangeCofactorX963, )

#define DOUBLE_DECLARE_ALGORITHM(name) extern const SecKeyAlgorithm kSecKeyAlgorithm##name;
DOUBLE_SEC_KEY_ALGORITHMS(DOUBLE_DECLARE_ALGORITHM)
#undef DOUBLE_DECLARE_ALGORITHM
extern const SecKeyAlgorithm kSecKeyAlgorithmECDSASignatureRFC4754
    __attribute__((availability(macos, introduced = 10.12, deprecated = 14.0)));

// ---- Keys ----

/// Bytes.
extern size_t SecKeyGetBlockSize(SecKeyRef key);
/// The caller's.
extern CFDictionaryRef _Nullable SecKeyCopyAttributes(SecKeyRef key);
/// False, and an error for the caller, for a signature that is not one.
extern Boolean SecKeyVerifySignature(SecKeyRef key, SecKeyAlgorithm algorithm, CFDataRef signedData,
                                     CFDataRef signature, CFErrorRef _Nullable* _Nullable outError);
/// The caller's; null, and an error for the caller, on failure.
extern CFDataRef _Nullable SecKeyCreateEncryptedData(SecKeyRef key, SecKeyAlgorithm algorithm,
                                                     CFDataRef plaintext,
                                                     CFErrorRef _Nullable* _Nullable outError);

NS_ASSUME_NONNULL_END

#ifdef __cplusplus
}
#endif
