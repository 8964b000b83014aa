#pragma once

/// What is used of CryptoTokenKit, declared as the platform declares it, except that its delegates are weak:
/// the runtime here has no weak references.

#import <Foundation/Foundation.h>
#import <Security/Security.h>
#import <double/CountedObject.h>

#ifdef __cplusplus
extern "C" {
#endif
extern NSString* _Nonnull const TKErrorDomain;
#ifdef __cplusplus
}
#endif

NS_ASSUME_NONNULL_BEGIN

typedef NS_ENUM(NSInteger, TKErrorCode) { TKErrorCodeObjectNotFound = -6 };

typedef id TKTokenObjectID;
typedef NSString* TKTokenInstanceID;
typedef id TKTokenOperationConstraint;

typedef NS_ENUM(NSInteger, TKTokenOperation) {
  TKTokenOperationSignData = 2,
  TKTokenOperationDecryptData = 3,
  TKTokenOperationPerformKeyExchange = 4,
};

@class TKToken, TKTokenDriver, TKTokenSession, TKSmartCard, TKSmartCardToken, TKSmartCardTokenDriver;

// ---- Reader and card ----

@interface TKSmartCardSlot : CountedObject {
 @private
  NSString* _name;
}
@property(readonly) NSString* name;
- (nullable TKSmartCard*)makeSmartCard;
@end

/// Without the calls that talk to the card: they would get in the way of a module that does so too.
@interface TKSmartCard : CountedObject {
 @private
  TKSmartCardSlot* _slot;
  BOOL _sensitive;
  id _context;
  UInt8 _cla;
}
@property(readonly) TKSmartCardSlot* slot;
@property BOOL sensitive;
@property(nullable, strong) id context;
@property UInt8 cla;
@end

@interface TKSmartCardPINFormat : CountedObject {
 @private
  NSInteger _minPINLength;
  NSInteger _maxPINLength;
  NSInteger _PINBitOffset;
}
@property NSInteger minPINLength;
@property NSInteger maxPINLength;
@property NSInteger PINBitOffset;
@end

// ---- Driver ----

@protocol TKTokenDriverDelegate <NSObject>
@end

@protocol TKSmartCardTokenDriverDelegate <TKTokenDriverDelegate>
- (nullable TKSmartCardToken*)tokenDriver:(TKSmartCardTokenDriver*)driver
                  createTokenForSmartCard:(TKSmartCard*)smartCard
                                      AID:(nullable NSData*)AID
                                    error:(NSError**)error;
@end

@interface TKTokenDriver : CountedObject {
 @private
  __unsafe_unretained id<TKTokenDriverDelegate> _delegate;
}
@property(nullable, assign) id<TKTokenDriverDelegate> delegate;
@end

@interface TKSmartCardTokenDriver : TKTokenDriver
@end

// ---- Keychain contents ----

@interface TKTokenKeychainItem : CountedObject {
 @private
  TKTokenObjectID _objectID;
  NSString* _label;
  NSDictionary<NSNumber*, TKTokenOperationConstraint>* _constraints;
}
- (instancetype)initWithObjectID:(TKTokenObjectID)objectID NS_DESIGNATED_INITIALIZER;
- (instancetype)init NS_UNAVAILABLE;
@property(readonly, copy) TKTokenObjectID objectID;
@property(nullable, copy) NSString* label;
@property(nullable, copy) NSDictionary<NSNumber*, TKTokenOperationConstraint>* constraints;
@end

@interface TKTokenKeychainCertificate : TKTokenKeychainItem
- (nullable instancetype)initWithCertificate:(SecCertificateRef)certificateRef
                                    objectID:(TKTokenObjectID)objectID NS_DESIGNATED_INITIALIZER;
- (instancetype)initWithObjectID:(TKTokenObjectID)objectID NS_UNAVAILABLE;
@end

@interface TKTokenKeychainKey : TKTokenKeychainItem {
 @private
  BOOL _canDecrypt;
  BOOL _canSign;
  BOOL _canPerformKeyExchange;
  BOOL _suitableForLogin;
}
- (nullable instancetype)initWithCertificate:(nullable SecCertificateRef)certificateRef
                                    objectID:(TKTokenObjectID)objectID NS_DESIGNATED_INITIALIZER;
- (instancetype)initWithObjectID:(TKTokenObjectID)objectID NS_UNAVAILABLE;
@property BOOL canDecrypt;
@property BOOL canSign;
@property BOOL canPerformKeyExchange;
@property(getter=isSuitableForLogin) BOOL suitableForLogin;
@end

@interface TKTokenKeychainContents : CountedObject {
 @private
  NSArray<TKTokenKeychainItem*>* _items;
  NSUInteger _numFills;
}
- (instancetype)init NS_UNAVAILABLE;
- (void)fillWithItems:(NSArray<TKTokenKeychainItem*>*)items;
@property(readonly, copy) NSArray<TKTokenKeychainItem*>* items;
- (nullable TKTokenKeychainKey*)keyForObjectID:(TKTokenObjectID)objectID error:(NSError**)error;
@end

// ---- Token ----

@protocol TKTokenDelegate <NSObject>
- (nullable TKTokenSession*)token:(TKToken*)token createSessionWithError:(NSError**)error;
@end

@interface TKToken : CountedObject {
 @private
  TKTokenDriver* _tokenDriver;
  __unsafe_unretained id<TKTokenDelegate> _delegate;
  TKTokenKeychainContents* _keychainContents;
  TKTokenInstanceID _instanceID;
}
- (instancetype)initWithTokenDriver:(TKTokenDriver*)tokenDriver
                         instanceID:(TKTokenInstanceID)instanceID NS_DESIGNATED_INITIALIZER;
- (instancetype)init NS_UNAVAILABLE;
@property(readonly) TKTokenDriver* tokenDriver;
@property(nullable, assign) id<TKTokenDelegate> delegate;
@property(nullable, readonly) TKTokenKeychainContents* keychainContents;
@end

@interface TKSmartCardToken : TKToken {
 @private
  TKSmartCard* _smartCard;
  NSData* _AID;
}
- (instancetype)initWithSmartCard:(TKSmartCard*)smartCard
                              AID:(nullable NSData*)AID
                       instanceID:(NSString*)instanceID
                      tokenDriver:(TKSmartCardTokenDriver*)tokenDriver NS_DESIGNATED_INITIALIZER;
- (instancetype)initWithTokenDriver:(TKTokenDriver*)tokenDriver
                         instanceID:(TKTokenInstanceID)instanceID NS_UNAVAILABLE;
@property(readonly, nullable) NSData* AID;
@end

// ---- Session ----

@interface TKTokenKeyAlgorithm : CountedObject {
 @private
  NSString* _target;
}
- (instancetype)init NS_UNAVAILABLE;
- (BOOL)isAlgorithm:(SecKeyAlgorithm)algorithm;
@end

@interface TKTokenKeyExchangeParameters : NSObject
@end

@interface TKTokenAuthOperation : CountedObject
- (BOOL)finishWithError:(NSError**)error;
@end

@interface TKTokenSmartCardPINAuthOperation : TKTokenAuthOperation {
 @private
  TKSmartCardPINFormat* _PINFormat;
  NSData* _APDUTemplate;
  TKSmartCard* _smartCard;
  NSString* _PIN;
}
@property(strong) TKSmartCardPINFormat* PINFormat;
@property(nullable, copy) NSData* APDUTemplate;
@property(nullable, strong) TKSmartCard* smartCard;
@property(nullable, copy) NSString* PIN;
@end

@protocol TKTokenSessionDelegate <NSObject>
@optional
- (nullable TKTokenAuthOperation*)tokenSession:(TKTokenSession*)session
                         beginAuthForOperation:(TKTokenOperation)operation
                                    constraint:(TKTokenOperationConstraint)constraint
                                         error:(NSError**)error;
- (BOOL)tokenSession:(TKTokenSession*)session
    supportsOperation:(TKTokenOperation)operation
             usingKey:(TKTokenObjectID)keyObjectID
            algorithm:(TKTokenKeyAlgorithm*)algorithm;
- (nullable NSData*)tokenSession:(TKTokenSession*)session
                        signData:(NSData*)dataToSign
                        usingKey:(TKTokenObjectID)keyObjectID
                       algorithm:(TKTokenKeyAlgorithm*)algorithm
                           error:(NSError**)error;
- (nullable NSData*)tokenSession:(TKTokenSession*)session
                     decryptData:(NSData*)ciphertext
                        usingKey:(TKTokenObjectID)keyObjectID
                       algorithm:(TKTokenKeyAlgorithm*)algorithm
                           error:(NSError**)error;
- (nullable NSData*)tokenSession:(TKTokenSession*)session
    performKeyExchangeWithPublicKey:(NSData*)otherPartyPublicKeyData
                           usingKey:(TKTokenObjectID)objectID
                          algorithm:(TKTokenKeyAlgorithm*)algorithm
                         parameters:(TKTokenKeyExchangeParameters*)parameters
                              error:(NSError**)error;
@end

@interface TKTokenSession : CountedObject {
 @private
  TKToken* _token;
  __unsafe_unretained id<TKTokenSessionDelegate> _delegate;
}
- (instancetype)initWithToken:(TKToken*)token NS_DESIGNATED_INITIALIZER;
- (instancetype)init NS_UNAVAILABLE;
@property(readonly) TKToken* token;
@property(nullable, assign) id<TKTokenSessionDelegate> delegate;
@end

@interface TKSmartCardTokenSession : TKTokenSession {
 @private
  TKSmartCard* _smartCard;
}
@property(readonly) TKSmartCard* smartCard;
@end

NS_ASSUME_NONNULL_END
