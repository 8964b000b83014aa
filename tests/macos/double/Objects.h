#pragma once

/// How the double, and tests of the adapters, make those objects that only the platform can make, and look
/// into them.

#import <CryptoTokenKit/CryptoTokenKit.h>
#include <openssl/evp.h>
#include <openssl/x509.h>

NS_ASSUME_NONNULL_BEGIN

@interface TKSmartCardSlot (Double)
- (instancetype)initWithName:(NSString*)name;
@end

@interface TKSmartCard (Double)
- (instancetype)initWithSlot:(TKSmartCardSlot*)slot;
- (TKSmartCard*)anotherConnection;
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

/// What a SecKeyRef is: a public key of a kind that the keychain has a name for.
@interface DoubleKey : CountedObject {
 @private
  EVP_PKEY* _key;
}
- (instancetype)initWithKey:(EVP_PKEY*)key;
- (EVP_PKEY*)key;
@end

/// What a SecCertificateRef is.
@interface DoubleCertificate : CountedObject {
 @private
  X509* _x509;
  DoubleKey* _publicKey;
}
- (nullable instancetype)initWithDer:(NSData*)der;
- (X509*)x509;
/// Nil for a kind of key that the keychain has no name for.
- (nullable DoubleKey*)publicKey;
@end

NS_ASSUME_NONNULL_END
