#import "MirelSCTokenSession.h"

#import "Bases.h"
#import "Convert.h"
#import "Errors.h"
#import "MirelSCToken.h"
#import "MirelSCTokenAuth.h"
#import "TokenObjects.h"

#include "token/MirelSCToken.h"
#include "token/MirelSCTokenSession.h"

void algorithmToPrint(TKTokenKeyAlgorithm* algorithm) {
  mirel::algorithmToPrint(*mirel::wrapped(algorithm), *mirel::extensionServices().log);
}

@implementation MirelSCTokenSession

- (void)dealloc {
  if (link_) link_->object = nil;
  [super dealloc];
}

// The initialiser of the base runs where the core wants it to, through mirel_baseInitWithToken:.
#pragma clang diagnostic push
#pragma clang diagnostic ignored "-Wobjc-designated-initializers"
- (instancetype)initWithToken:(TKToken*)token {
  const auto core = [self mirel_core];
  (void)core->initWithToken(mirel::coreOf(token));
  return static_cast<MirelSCTokenSession*>(core->platformObject());
}
#pragma clang diagnostic pop

- (instancetype)mirel_baseInitWithToken:(TKToken*)token {
  const auto core = core_;
  const auto link = link_;
  self = [super initWithToken:token];
  if (self) {
    core_ = core;
    link_ = link;
    [self setDelegate:self];
  }
  return self;
}

- (const std::shared_ptr<mirel::MirelSCTokenSession>&)mirel_core {
  if (!core_) core_ = mirel::newCore<mirel::MirelSCTokenSession>(self);
  return core_;
}

- (void)mirel_setLink:(const std::shared_ptr<mirel::Link>&)link {
  link_ = link;
}

- (NSInteger)authState {
  return static_cast<NSInteger>([self mirel_core]->authState());
}

- (void)setAuthState:(NSInteger)authState {
  [self mirel_core]->setAuthState(authState);
}

- (CryptTKitSProvider*)sp {
  return [CryptTKitSProvider boxOf:[self mirel_core]->sp()];
}

- (void)setSp:(CryptTKitSProvider*)sp {
  [self mirel_core]->setSp([CryptTKitSProvider providerIn:sp]);
}

- (TKTokenAuthOperation*)tokenSession:(TKTokenSession*)session
                beginAuthForOperation:(TKTokenOperation)operation
                           constraint:(TKTokenOperationConstraint)constraint
                                error:(NSError**)error {
  mirel::ErrorArgument argument{error};
  return mirel::objectBehind([self mirel_core]->beginAuthForOperation(
      [self mirel_core], static_cast<mirel::TKTokenOperation>(operation), mirel::textOfObject(constraint),
      argument.pointer()));
}

- (BOOL)tokenSession:(TKTokenSession*)session
    supportsOperation:(TKTokenOperation)operation
             usingKey:(TKTokenObjectID)keyObjectID
            algorithm:(TKTokenKeyAlgorithm*)algorithm {
  return
      [self mirel_core]->supportsOperation([self mirel_core], static_cast<mirel::TKTokenOperation>(operation),
                                           mirel::textOfObject(keyObjectID), *mirel::wrapped(algorithm));
}

- (NSData*)tokenSession:(TKTokenSession*)session
               signData:(NSData*)dataToSign
               usingKey:(TKTokenObjectID)keyObjectID
              algorithm:(TKTokenKeyAlgorithm*)algorithm
                  error:(NSError**)error {
  mirel::ErrorArgument argument{error};
  return mirel::dataOf([self mirel_core]->signData([self mirel_core], mirel::bytesOf(dataToSign),
                                                   mirel::textOfObject(keyObjectID),
                                                   *mirel::wrapped(algorithm), argument.pointer()));
}

- (NSData*)tokenSession:(TKTokenSession*)session
            decryptData:(NSData*)ciphertext
               usingKey:(TKTokenObjectID)keyObjectID
              algorithm:(TKTokenKeyAlgorithm*)algorithm
                  error:(NSError**)error {
  mirel::ErrorArgument argument{error};
  return mirel::dataOf([self mirel_core]->decryptData([self mirel_core], mirel::bytesOf(ciphertext),
                                                      mirel::textOfObject(keyObjectID),
                                                      *mirel::wrapped(algorithm), argument.pointer()));
}

- (NSData*)tokenSession:(TKTokenSession*)session
    performKeyExchangeWithPublicKey:(NSData*)otherPartyPublicKeyData
                           usingKey:(TKTokenObjectID)keyObjectID
                          algorithm:(TKTokenKeyAlgorithm*)algorithm
                         parameters:(TKTokenKeyExchangeParameters*)parameters
                              error:(NSError**)error {
  mirel::ErrorArgument argument{error};
  return mirel::dataOf([self mirel_core]->performKeyExchangeWithPublicKey(
      [self mirel_core], mirel::bytesOf(otherPartyPublicKeyData), mirel::textOfObject(keyObjectID),
      *mirel::wrapped(algorithm), mirel::wrapped(parameters), argument.pointer()));
}

- (TKTokenKeychainKey*)authenticatedKeyForObjectID:(TKTokenObjectID)keyObjectID error:(NSError**)error {
  mirel::ErrorArgument argument{error};
  return mirel::objectBehind(
      [self mirel_core]->authenticatedKeyForObjectID(mirel::textOfObject(keyObjectID), argument.pointer()));
}

- (TKTokenKeychainKey*)generalAuthenticateWithData:(NSData*)data
                                           dataTag:(NSInteger)dataTag
                                          usingKey:(TKTokenObjectID)keyObjectID
                                             error:(NSError**)error {
  mirel::ErrorArgument argument{error};
  return mirel::objectBehind(
      [self mirel_core]->generalAuthenticateWithData(mirel::bytesOf(data), static_cast<std::uint8_t>(dataTag),
                                                     mirel::textOfObject(keyObjectID), argument.pointer()));
}

@end
