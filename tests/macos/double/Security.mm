#import <Security/Security.h>

#include <openssl/evp.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <vector>

#import "Objects.h"
#import "Switches.h"

using namespace mirel::test;

namespace {

struct OpenSslFree {
  void operator()(X509* certificate) const noexcept { X509_free(certificate); }
  void operator()(ASN1_BIT_STRING* bits) const noexcept { ASN1_BIT_STRING_free(bits); }
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

}  // namespace

@implementation DoubleCertificate
@synthesize der = _der, keyType = _keyType, keySizeInBits = _keySizeInBits, publicKey = _publicKey,
            keyUsage = _keyUsage;

- (instancetype)initWithDer:(NSData*)der {
  self = [super init];
  if (!self) return nil;
  countObject("SecCertificate", 1);
  const auto* next = static_cast<const unsigned char*>([der bytes]);
  const std::unique_ptr<X509, OpenSslFree> x509{d2i_X509(nullptr, &next, (long)[der length])};
  // OpenSSL also takes encodings that are not DER, and whatever comes after them.
  if (!x509 || ![encoded<i2d_X509>(x509.get()) isEqual:der]) {
    [self release];
    return nil;
  }
  _der = [der copy];
  _keyUsage = [keyUsageOf(x509.get()) retain];
  if (const EVP_PKEY* key = X509_get0_pubkey(x509.get())) {
    _keyType = [keyTypeOf(key) retain];
    _keySizeInBits = EVP_PKEY_get_bits(key);
    if (_keyType) _publicKey = [encoded<i2d_PublicKey>(key) retain];
  }
  return self;
}

- (void)dealloc {
  countObject("SecCertificate", -1);
  [_der release];
  [_keyType release];
  [_publicKey release];
  [_keyUsage release];
  [super dealloc];
}
@end

// ---- CoreFoundation ----

const CFAllocatorRef kCFAllocatorDefault = nullptr;

CFTypeRef CFRetain(CFTypeRef object) { return [objectOf(object, "CFRetain") retain]; }
void CFRelease(CFTypeRef object) { [objectOf(object, "CFRelease") release]; }
CFIndex CFGetRetainCount(CFTypeRef object) {
  return (CFIndex)[objectOf(object, "CFGetRetainCount") retainCount];
}
Boolean CFEqual(CFTypeRef one, CFTypeRef other) {
  return [objectOf(one, "CFEqual") isEqual:objectOf(other, "CFEqual")] ? 1 : 0;
}

CFTypeID CFGetTypeID(CFTypeRef object) {
  const id foundation = objectOf(object, "CFGetTypeID");
  for (Class type :
       {[NSString class], [NSData class], [NSNumber class], [NSArray class], [NSDictionary class]}) {
    if ([foundation isKindOfClass:type]) return (CFTypeID)type;
  }
  return (CFTypeID)[foundation class];
}
CFTypeID CFStringGetTypeID(void) { return (CFTypeID)[NSString class]; }
CFTypeID CFDataGetTypeID(void) { return (CFTypeID)[NSData class]; }
CFTypeID CFNumberGetTypeID(void) { return (CFTypeID)[NSNumber class]; }
CFTypeID CFArrayGetTypeID(void) { return (CFTypeID)[NSArray class]; }
CFTypeID CFDictionaryGetTypeID(void) { return (CFTypeID)[NSDictionary class]; }
CFTypeID SecCertificateGetTypeID(void) { return (CFTypeID)[DoubleCertificate class]; }

CFDataRef CFDataCreate(CFAllocatorRef, const UInt8* bytes, CFIndex length) {
  return (CFDataRef)[[NSData alloc] initWithBytes:bytes length:(NSUInteger)length];
}
const UInt8* CFDataGetBytePtr(CFDataRef data) {
  return static_cast<const UInt8*>([objectOf(data, "CFDataGetBytePtr") bytes]);
}
CFIndex CFDataGetLength(CFDataRef data) { return (CFIndex)[objectOf(data, "CFDataGetLength") length]; }

const void* CFDictionaryGetValue(CFDictionaryRef dictionary, const void* key) {
  return [(NSDictionary*)objectOf(dictionary, "CFDictionaryGetValue") objectForKey:(id)key];
}

Boolean CFNumberGetValue(CFNumberRef number, CFNumberType type, void* outValue) {
  const long long value = [objectOf(number, "CFNumberGetValue") longLongValue];
  if (type == kCFNumberSInt64Type) {
    *static_cast<long long*>(outValue) = value;
    return 1;
  }
  *static_cast<int*>(outValue) = (int)value;
  return (int)value == value ? 1 : 0;
}

// ---- Certificates ----

const CFStringRef kSecOIDKeyUsage = CFSTR("double OID of the key usage");
const CFStringRef kSecPropertyKeyType = CFSTR("double type");
const CFStringRef kSecPropertyKeyLabel = CFSTR("double label");
const CFStringRef kSecPropertyKeyLocalizedLabel = CFSTR("double localized label");
const CFStringRef kSecPropertyKeyValue = CFSTR("double value");
const CFStringRef kSecAttrKeyTypeRSA = CFSTR("double RSA");
const CFStringRef kSecAttrKeyTypeECSECPrimeRandom = CFSTR("double EC");

SecCertificateRef SecCertificateCreateWithData(CFAllocatorRef, CFDataRef der) {
  @autoreleasepool {
    NSData* const data = objectOf(der, "SecCertificateCreateWithData");
    return (SecCertificateRef)[[DoubleCertificate alloc] initWithDer:data];
  }
}

CFDataRef SecCertificateCopyData(SecCertificateRef certificate) {
  return (CFDataRef)[[objectOf(certificate, "SecCertificateCopyData") der] copy];
}

CFDictionaryRef SecCertificateCopyValues(SecCertificateRef certificate, CFArrayRef oids,
                                         CFErrorRef* outError) {
  DoubleCertificate* const object = objectOf(certificate, "SecCertificateCopyValues");
  if (switches().keyUsageForm == KeyUsageForm::kError) {
    if (outError) *outError = (CFErrorRef)[[NSError alloc] initWithDomain:@"double" code:-1 userInfo:nil];
    return nullptr;
  }
  @autoreleasepool {
    NSMutableDictionary* const values = [NSMutableDictionary dictionary];
    if ([object keyUsage] && (!oids || [(NSArray*)oids containsObject:(id)kSecOIDKeyUsage])) {
      NSMutableDictionary* const entry = [NSMutableDictionary dictionary];
      [entry setObject:@"double number" forKey:(id)kSecPropertyKeyType];
      [entry setObject:@"Key Usage" forKey:(id)kSecPropertyKeyLabel];
      [entry setObject:@"Key Usage" forKey:(id)kSecPropertyKeyLocalizedLabel];
      if (const id value = keyUsageValue([object keyUsage]))
        [entry setObject:value forKey:(id)kSecPropertyKeyValue];
      [values setObject:entry forKey:(id)kSecOIDKeyUsage];
    }
    return (CFDictionaryRef)[values copy];
  }
}

// ---- Algorithms ----

// The texts are meant for logs; nobody may rely on them.
#define DOUBLE_DEFINE_ALGORITHM(name) const SecKeyAlgorithm kSecKeyAlgorithm##name = CFSTR("double:" #name);
DOUBLE_SEC_KEY_ALGORITHMS(DOUBLE_DEFINE_ALGORITHM)
#undef DOUBLE_DEFINE_ALGORITHM
