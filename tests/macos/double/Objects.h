#pragma once

/// How the double, and tests of the adapters, make those objects that only the platform can make, and look
/// into them.

#import <CryptoTokenKit/CryptoTokenKit.h>
#include <openssl/evp.h>

#include <vector>

NS_ASSUME_NONNULL_BEGIN

@interface TKSmartCardSlot (Double)
- (instancetype)initWithName:(NSString*)name;
@end

@interface TKSmartCard (Double)
- (instancetype)initWithSlot:(TKSmartCardSlot*)slot;
/// As the platform does when the card is reset, taken out or used by somebody else.
- (void)loseContext;
@end

@interface TKTokenKeychainContents (Double)
- (instancetype)initEmpty;
/// How often it was filled.
- (NSUInteger)numFills;
@end

@interface TKToken (Double)
- (TKTokenInstanceID)instanceID;
@end

@interface TKSmartCardToken (Double)
- (TKSmartCard*)smartCard;
@end

@interface TKTokenKeyAlgorithm (Double)
/// An algorithm in whose form the data arrive, and those that the request passed through before.
+ (instancetype)algorithmWithTarget:(SecKeyAlgorithm)target
                      passedThrough:(const std::vector<SecKeyAlgorithm>&)passedThrough;
/// What isAlgorithm: and supportsAlgorithm: were asked for, in order.
- (NSArray<NSString*>*)asked;
@end

@interface TKTokenKeyExchangeParameters (Double)
+ (instancetype)parametersWithRequestedSize:(NSInteger)size sharedInfo:(nullable NSData*)info;
@end

/// What a SecKeyRef is: a public key.
@interface DoubleKey : NSObject {
 @private
  EVP_PKEY* _key;
  NSString* _keyType;
  NSInteger _keySizeInBits;
}
- (instancetype)initWithKey:(EVP_PKEY*)key keyType:(NSString*)keyType;
- (EVP_PKEY*)key;
@property(readonly) NSString* keyType;
@property(readonly) NSInteger keySizeInBits;
@end

/// What a SecCertificateRef is.
@interface DoubleCertificate : NSObject {
 @private
  NSData* _der;
  NSString* _keyType;
  NSInteger _keySizeInBits;
  NSData* _publicKey;
  NSNumber* _keyUsage;
  NSString* _commonName;
  NSDate* _notAfter;
  DoubleKey* _key;
}
- (nullable instancetype)initWithDer:(NSData*)der;
@property(readonly) NSData* der;
/// Nil for a kind of key that the keychain has no name for.
@property(readonly, nullable) NSString* keyType;
@property(readonly) NSInteger keySizeInBits;
/// RFC 8017's RSAPublicKey, or the uncompressed point.
@property(readonly, nullable) NSData* publicKey;
/// Bit n is bit n of RFC 5280's bit string; nil without the extension.
@property(readonly, nullable) NSNumber* keyUsage;
@property(readonly, nullable) NSString* commonName;
@property(readonly, nullable) NSDate* notAfter;
/// Nil like keyType.
@property(readonly, nullable) DoubleKey* key;
@end

NS_ASSUME_NONNULL_END
