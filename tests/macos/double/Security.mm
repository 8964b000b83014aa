#import <Security/Security.h>

#include <openssl/bn.h>
#include <openssl/ecdsa.h>
#include <openssl/evp.h>
#include <openssl/rsa.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#import "Objects.h"
#import "RaisingCall.h"
#import "Switches.h"

using namespace mirel::test;

namespace {

struct OpenSslFree {
  void operator()(ASN1_BIT_STRING* bits) const noexcept { ASN1_BIT_STRING_free(bits); }
  void operator()(EVP_PKEY_CTX* context) const noexcept { EVP_PKEY_CTX_free(context); }
};

/// The object behind a reference, which must be none of nothing.
id objectOf(CFTypeRef reference, const char* function) {
  if (!reference) {
    (void)std::fprintf(stderr, "%s: NULL where an object is needed\n", function);
    std::abort();
  }
  return (id)reference;
}

template <auto Encode, typename Value>
NSData* encoded(const Value* value) {
  const int size = Encode(value, nullptr);
  if (size <= 0) return nil;
  NSMutableData* data = [NSMutableData dataWithLength:(NSUInteger)size];
  auto* next = static_cast<unsigned char*>([data mutableBytes]);
  (void)Encode(value, &next);
  return data;
}

NSString* keyTypeOf(const EVP_PKEY* key) {
  switch (EVP_PKEY_get_base_id(key)) {
    case EVP_PKEY_RSA: return (NSString*)kSecAttrKeyTypeRSA;
    case EVP_PKEY_EC: return (NSString*)kSecAttrKeyTypeECSECPrimeRandom;
    default: return nil;
  }
}

NSNumber* keyUsageOf(const X509* certificate) {
  const std::unique_ptr<ASN1_BIT_STRING, OpenSslFree> bits{
      static_cast<ASN1_BIT_STRING*>(X509_get_ext_d2i(certificate, NID_key_usage, nullptr, nullptr))};
  if (!bits) return nil;
  int usage = 0;
  for (int bit = 0; bit < 9; ++bit) usage |= ASN1_BIT_STRING_get_bit(bits.get(), bit) << bit;
  return [NSNumber numberWithInt:usage];
}

NSDate* notAfterOf(const X509* certificate) {
  std::tm utc{};
  if (ASN1_TIME_to_tm(X509_get0_notAfter(certificate), &utc) != 1) return nil;
  return [NSDate dateWithTimeIntervalSince1970:(NSTimeInterval)timegm(&utc)];
}

NSString* commonNameOf(const X509* certificate) {
  const X509_NAME* const name = X509_get_subject_name(certificate);
  const int index = X509_NAME_get_index_by_NID(name, NID_commonName, -1);
  if (index < 0) return nil;
  unsigned char* utf8 = nullptr;
  const int size = ASN1_STRING_to_UTF8(&utf8, X509_NAME_ENTRY_get_data(X509_NAME_get_entry(name, index)));
  if (size < 0) return nil;
  NSString* const text = [[[NSString alloc] initWithBytes:utf8
                                                   length:(NSUInteger)size
                                                 encoding:NSUTF8StringEncoding] autorelease];
  OPENSSL_free(utf8);
  return text;
}

int withHighBits(int usage) {
  int other = 0;
  for (int bit = 0; bit < 9; ++bit) {
    if ((usage >> bit & 1) != 0) other |= 0x8000 >> bit;
  }
  return other;
}

/// The value of the key usage's entry in the form that is switched on, or nil.
id keyUsageValue(NSNumber* usage) {
  switch (switches().keyUsageForm) {
    case KeyUsageForm::kHighBits: return [NSNumber numberWithInt:withHighBits([usage intValue])];
    case KeyUsageForm::kText: return @"Digital Signature";
    case KeyUsageForm::kNoValue: return nil;
    default: return usage;
  }
}

/// The value of the entry for the end of the validity in the form that is switched on, or nil.
id notAfterValue(NSDate* notAfter) {
  switch (switches().validityForm) {
    case ValidityForm::kDate: return notAfter;
    case ValidityForm::kText: return @"tomorrow";
    case ValidityForm::kFarAway: return [NSNumber numberWithDouble:1e300];
    default: return [NSNumber numberWithDouble:[notAfter timeIntervalSinceReferenceDate]];
  }
}

NSDictionary* entryOf(id value) { return value ? @{(id)kSecPropertyKeyValue : value} : @{}; }

}  // namespace

@implementation DoubleKey
- (instancetype)initWithKey:(EVP_PKEY*)key {
  if ((self = [super init])) {
    EVP_PKEY_up_ref(key);
    _key = key;
  }
  return self;
}
- (EVP_PKEY*)key {
  return _key;
}
- (void)dealloc {
  EVP_PKEY_free(_key);
  [super dealloc];
}
@end

@implementation DoubleCertificate
- (instancetype)initWithDer:(NSData*)der {
  if (!(self = [super init])) return nil;
  const auto* next = static_cast<const unsigned char*>([der bytes]);
  _x509 = d2i_X509(nullptr, &next, (long)[der length]);
  // OpenSSL also takes encodings that are not DER. What comes after the certificate does not matter.
  NSData* const whole = _x509 ? encoded<i2d_X509>(_x509) : nil;
  const bool isDer =
      whole && [der length] >= [whole length] && std::memcmp([whole bytes], [der bytes], [whole length]) == 0;
  if (!isDer) {
    [self release];
    return nil;
  }
  EVP_PKEY* const key = X509_get0_pubkey(_x509);
  if (key && keyTypeOf(key)) _publicKey = [[DoubleKey alloc] initWithKey:key];
  return self;
}
- (X509*)x509 {
  return _x509;
}
- (DoubleKey*)publicKey {
  return _publicKey;
}
- (void)dealloc {
  X509_free(_x509);
  [_publicKey release];
  [super dealloc];
}
@end

// ---- CoreFoundation ----

CFTypeRef CFRetain(CFTypeRef object) { return [objectOf(object, "CFRetain") retain]; }
void CFRelease(CFTypeRef object) { [objectOf(object, "CFRelease") release]; }

// ---- Certificates ----

const CFStringRef kSecOIDKeyUsage = CFSTR("double OID of the key usage");
const CFStringRef kSecOIDX509V1ValidityNotAfter = CFSTR("double OID of the end");
const CFStringRef kSecPropertyKeyValue = CFSTR("double value");
const CFStringRef kSecAttrKeyType = CFSTR("double key type");
const CFStringRef kSecAttrKeySizeInBits = CFSTR("double key size");
const CFStringRef kSecAttrKeyTypeRSA = CFSTR("double RSA");
const CFStringRef kSecAttrKeyTypeECSECPrimeRandom = CFSTR("double EC");

SecCertificateRef SecCertificateCreateWithData(CFAllocatorRef, CFDataRef der) {
  raiseIn("SecCertificateCreateWithData");
  @autoreleasepool {
    NSData* const data = objectOf(der, "SecCertificateCreateWithData");
    return (SecCertificateRef)[[DoubleCertificate alloc] initWithDer:data];
  }
}

CFStringRef SecCertificateCopySubjectSummary(SecCertificateRef certificate) {
  raiseIn("SecCertificateCopySubjectSummary");
  DoubleCertificate* const object = objectOf(certificate, "SecCertificateCopySubjectSummary");
  return switches().withoutSummary ? nullptr : (CFStringRef)[commonNameOf([object x509]) copy];
}

SecKeyRef SecCertificateCopyKey(SecCertificateRef certificate) {
  raiseIn("SecCertificateCopyKey");
  return (SecKeyRef)[[objectOf(certificate, "SecCertificateCopyKey") publicKey] retain];
}

CFDictionaryRef SecCertificateCopyValues(SecCertificateRef certificate, CFArrayRef oids,
                                         CFErrorRef* outError) {
  raiseIn("SecCertificateCopyValues");
  DoubleCertificate* const object = objectOf(certificate, "SecCertificateCopyValues");
  if (switches().keyUsageForm == KeyUsageForm::kError) {
    if (outError) *outError = (CFErrorRef)[[NSError alloc] initWithDomain:@"double" code:-1 userInfo:nil];
    return nullptr;
  }
  @autoreleasepool {
    NSMutableDictionary* const values = [NSMutableDictionary dictionary];
    const auto wanted = [oids](CFStringRef oid) { return !oids || [(NSArray*)oids containsObject:(id)oid]; };
    NSNumber* const usage = keyUsageOf([object x509]);
    if (usage && wanted(kSecOIDKeyUsage)) {
      [values setObject:entryOf(keyUsageValue(usage)) forKey:(id)kSecOIDKeyUsage];
    }
    NSDate* const notAfter = notAfterOf([object x509]);
    if (notAfter && wanted(kSecOIDX509V1ValidityNotAfter)) {
      [values setObject:entryOf(notAfterValue(notAfter)) forKey:(id)kSecOIDX509V1ValidityNotAfter];
    }
    return (CFDictionaryRef)[values copy];
  }
}

// ---- Algorithms ----

// The texts are meant for logs; nobody may rely on them.
#define DOUBLE_DEFINE_ALGORITHM(name) const SecKeyAlgorithm kSecKeyAlgorithm##name = CFSTR("double:" #name);
DOUBLE_SEC_KEY_ALGORITHMS(DOUBLE_DEFINE_ALGORITHM)
#undef DOUBLE_DEFINE_ALGORITHM

// ---- Keys ----

namespace {

using ContextHolder = std::unique_ptr<EVP_PKEY_CTX, OpenSslFree>;

void fail(CFErrorRef* outError) {
  if (outError) *outError = (CFErrorRef)[[NSError alloc] initWithDomain:@"double" code:-50 userInfo:nil];
}

/// OpenSSL's name of the hash in the name of the algorithm; null without.
const EVP_MD* hashIn(const std::string& algorithm) {
  for (const char* hash : {"SHA1", "SHA224", "SHA256", "SHA384", "SHA512"}) {
    if (algorithm.find(hash) != std::string::npos) return EVP_get_digestbyname(hash);
  }
  return nullptr;
}

std::string nameOfAlgorithm(SecKeyAlgorithm algorithm) { return [(NSString*)algorithm UTF8String]; }

/// Two numbers of equal length as a DER sequence.
NSData* sequenceOf(NSData* numbers) {
  const auto* const first = static_cast<const unsigned char*>([numbers bytes]);
  const int half = (int)[numbers length] / 2;
  ECDSA_SIG* const signature = ECDSA_SIG_new();
  (void)ECDSA_SIG_set0(signature, BN_bin2bn(first, half, nullptr), BN_bin2bn(first + half, half, nullptr));
  NSData* const der = encoded<i2d_ECDSA_SIG>(signature);
  ECDSA_SIG_free(signature);
  return der;
}

bool setUp(EVP_PKEY_CTX* context, const std::string& algorithm) {
  const auto has = [&](const char* part) { return algorithm.find(part) != std::string::npos; };
  if (!has(":RSASignature") && !has(":ECDSASignature")) return false;
  const bool isRsa = EVP_PKEY_get_base_id(EVP_PKEY_CTX_get0_pkey(context)) == EVP_PKEY_RSA;
  if (isRsa != has(":RSA")) return false;
  if (isRsa && EVP_PKEY_CTX_set_rsa_padding(context, has("PSS")        ? RSA_PKCS1_PSS_PADDING
                                                     : has("PKCS1v15") ? RSA_PKCS1_PADDING
                                                                       : RSA_NO_PADDING) != 1) {
    return false;
  }
  const EVP_MD* const hash = hashIn(algorithm);
  if (hash && EVP_PKEY_CTX_set_signature_md(context, hash) != 1) return false;
  return !has("PSS") || EVP_PKEY_CTX_set_rsa_pss_saltlen(context, RSA_PSS_SALTLEN_DIGEST) == 1;
}

}  // namespace

size_t SecKeyGetBlockSize(SecKeyRef key) {
  raiseIn("SecKeyGetBlockSize");
  DoubleKey* const object = objectOf(key, "SecKeyGetBlockSize");
  return (size_t)(EVP_PKEY_get_bits([object key]) + 7) / 8;
}

CFDictionaryRef SecKeyCopyAttributes(SecKeyRef key) {
  raiseIn("SecKeyCopyAttributes");
  DoubleKey* const object = objectOf(key, "SecKeyCopyAttributes");
  @autoreleasepool {
    return (CFDictionaryRef)[@{
      (id)kSecAttrKeyType : keyTypeOf([object key]),
      (id)kSecAttrKeySizeInBits : @(EVP_PKEY_get_bits([object key]))
    } copy];
  }
}

Boolean SecKeyVerifySignature(SecKeyRef key, SecKeyAlgorithm algorithm, CFDataRef signedData,
                              CFDataRef signature, CFErrorRef* outError) {
  raiseIn("SecKeyVerifySignature");
  NSData* const data = objectOf(signedData, "SecKeyVerifySignature");
  NSData* made = objectOf(signature, "SecKeyVerifySignature");
  std::string name = nameOfAlgorithm(algorithm);
  NSData* toVerify = data;
  // The platform hashes a message itself.
  if (name.find("Message") != std::string::npos) {
    NSMutableData* const digest = [NSMutableData dataWithLength:EVP_MAX_MD_SIZE];
    unsigned size = 0;
    (void)EVP_Digest([data bytes], [data length], static_cast<unsigned char*>([digest mutableBytes]), &size,
                     hashIn(name), nullptr);
    [digest setLength:size];
    toVerify = digest;
  }
  if (name.find("RFC4754") != std::string::npos) made = sequenceOf(made);
  DoubleKey* const object = objectOf(key, "SecKeyVerifySignature");
  const ContextHolder context{EVP_PKEY_CTX_new([object key], nullptr)};
  const bool good =
      EVP_PKEY_verify_init(context.get()) == 1 && setUp(context.get(), name) &&
      EVP_PKEY_verify(context.get(), static_cast<const unsigned char*>([made bytes]), [made length],
                      static_cast<const unsigned char*>([toVerify bytes]), [toVerify length]) == 1;
  if (!good) fail(outError);
  return good ? 1 : 0;
}

CFDataRef SecKeyCreateEncryptedData(SecKeyRef key, SecKeyAlgorithm algorithm, CFDataRef plaintext,
                                    CFErrorRef* outError) {
  raiseIn("SecKeyCreateEncryptedData");
  NSData* const plain = objectOf(plaintext, "SecKeyCreateEncryptedData");
  DoubleKey* const object = objectOf(key, "SecKeyCreateEncryptedData");
  EVP_PKEY* const openSslKey = [object key];
  if (![(NSString*)algorithm isEqual:(NSString*)kSecKeyAlgorithmRSAEncryptionRaw] ||
      EVP_PKEY_get_base_id(openSslKey) != EVP_PKEY_RSA) {
    fail(outError);
    return nullptr;
  }
  const ContextHolder context{EVP_PKEY_CTX_new(openSslKey, nullptr)};
  size_t size = (size_t)EVP_PKEY_get_size(openSslKey);
  NSMutableData* const out = [[NSMutableData alloc] initWithLength:size];
  if (EVP_PKEY_encrypt_init(context.get()) != 1 ||
      EVP_PKEY_CTX_set_rsa_padding(context.get(), RSA_NO_PADDING) != 1 ||
      EVP_PKEY_encrypt(context.get(), static_cast<unsigned char*>([out mutableBytes]), &size,
                       static_cast<const unsigned char*>([plain bytes]), [plain length]) != 1) {
    [out release];
    fail(outError);
    return nullptr;
  }
  return (CFDataRef)out;
}
