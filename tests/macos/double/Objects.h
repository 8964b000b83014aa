#pragma once

/// How the double, and tests of the adapters, make those objects that only the platform can make, and look
/// into them.

#import <CryptoTokenKit/CryptoTokenKit.h>
#include <openssl/evp.h>

NS_ASSUME_NONNULL_BEGIN

@interface TKSmartCardSlot (Double)
- (instancetype)initWithName:(NSString*)name;
@end

@interface TKSmartCard (Double)
- (instancetype)initWithSlot:(TKSmartCardSlot*)slot;
- (TKSmartCard*)anotherConnection;
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
/// An algorithm in whose form the data arrive.
+ (instancetype)algorithmWithTarget:(SecKeyAlgorithm)target;
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
/// Bit n is bit n of RFC 5280's bit string; nil without the extension.
@property(readonly, nullable) NSNumber* keyUsage;
@property(readonly, nullable) NSString* commonName;
@property(readonly, nullable) NSDate* notAfter;
/// Nil like keyType.
@property(readonly, nullable) DoubleKey* key;
@end

NS_ASSUME_NONNULL_END
