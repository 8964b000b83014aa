#import "MirelSCTokenSession.h"

#import "Bases.h"
#import "Convert.h"
#import "MirelSCToken.h"
#import "MirelSCTokenAuth.h"
#import "TokenObjects.h"

#include "token/MirelSCToken.h"
#include "token/MirelSCTokenSession.h"

void algorithmToPrint(TKTokenKeyAlgorithm* algorithm) {
  mirel::algorithmToPrint(*mirel::wrapped(algorithm), *mirel::extensionServices().log);
}

@implementation MirelSCTokenSession

- (void)setLink:(const std::shared_ptr<mirel::Link>&)link {
  link_ = link;
}

- (void)dealloc {
  if (link_) link_->object = nil;
  [super dealloc];
}

// The initialiser of the base runs where the core wants it to, through baseInitWithToken:.
#pragma clang diagnostic push
#pragma clang diagnostic ignored "-Wobjc-designated-initializers"
- (instancetype)initWithToken:(TKToken*)token {
  const auto core =
      std::make_shared<mirel::MirelSCTokenSession>(mirel::extensionServices(), mirel::baseOf(self));
  core_ = core;
  if (core->initWithToken(mirel::coreOf(token)))
    return static_cast<MirelSCTokenSession*>(core->platformObject());
  return nil;  // the base initialiser has already let go of this object
}
#pragma clang diagnostic pop

- (instancetype)baseInitWithToken:(TKToken*)token {
  self = [super initWithToken:token];
  [self setDelegate:self];
  return self;
}

- (void)adoptCore:(const std::shared_ptr<mirel::MirelSCTokenSession>&)core {
  core_ = core;
  link_->ownedByBase = false;
}

- (std::shared_ptr<mirel::MirelSCTokenSession>)core {
  return core_;
}

- (NSInteger)authState {
  return static_cast<NSInteger>(core_->authState());
}

- (void)setAuthState:(NSInteger)authState {
  core_->setAuthState(authState);
}

- (CryptTKitSProvider*)sp {
  return [CryptTKitSProvider boxOf:core_->sp()];
}

- (void)setSp:(CryptTKitSProvider*)sp {
  core_->setSp([CryptTKitSProvider providerIn:sp]);
}

- (TKTokenAuthOperation*)tokenSession:(TKTokenSession*)session
                beginAuthForOperation:(TKTokenOperation)operation
                           constraint:(TKTokenOperationConstraint)constraint
                                error:(NSError**)error {
  mirel::ErrorArgument argument{error};
  return mirel::handedOut(core_->beginAuthForOperation(core_, static_cast<mirel::TKTokenOperation>(operation),
                                                       mirel::textOfObject(constraint), argument.pointer()));
}

- (BOOL)tokenSession:(TKTokenSession*)session
    supportsOperation:(TKTokenOperation)operation
             usingKey:(TKTokenObjectID)keyObjectID
            algorithm:(TKTokenKeyAlgorithm*)algorithm {
  return core_->supportsOperation(core_, static_cast<mirel::TKTokenOperation>(operation),
                                  mirel::textOfObject(keyObjectID), *mirel::wrapped(algorithm));
}

- (NSData*)tokenSession:(TKTokenSession*)session
               signData:(NSData*)dataToSign
               usingKey:(TKTokenObjectID)keyObjectID
              algorithm:(TKTokenKeyAlgorithm*)algorithm
                  error:(NSError**)error {
  mirel::ErrorArgument argument{error};
  return mirel::dataOf(core_->signData(core_, mirel::bytesOf(dataToSign), mirel::textOfObject(keyObjectID),
                                       *mirel::wrapped(algorithm), argument.pointer()));
}

- (NSData*)tokenSession:(TKTokenSession*)session
            decryptData:(NSData*)ciphertext
               usingKey:(TKTokenObjectID)keyObjectID
              algorithm:(TKTokenKeyAlgorithm*)algorithm
                  error:(NSError**)error {
  mirel::ErrorArgument argument{error};
  return mirel::dataOf(core_->decryptData(core_, mirel::bytesOf(ciphertext), mirel::textOfObject(keyObjectID),
                                          *mirel::wrapped(algorithm), argument.pointer()));
}

- (NSData*)tokenSession:(TKTokenSession*)session
    performKeyExchangeWithPublicKey:(NSData*)otherPartyPublicKeyData
                           usingKey:(TKTokenObjectID)keyObjectID
                          algorithm:(TKTokenKeyAlgorithm*)algorithm
                         parameters:(TKTokenKeyExchangeParameters*)parameters
                              error:(NSError**)error {
  mirel::ErrorArgument argument{error};
  return mirel::dataOf(core_->performKeyExchangeWithPublicKey(
      core_, mirel::bytesOf(otherPartyPublicKeyData), mirel::textOfObject(keyObjectID),
      *mirel::wrapped(algorithm), mirel::wrapped(parameters), argument.pointer()));
}

- (TKTokenKeychainKey*)authenticatedKeyForObjectID:(TKTokenObjectID)keyObjectID error:(NSError**)error {
  mirel::ErrorArgument argument{error};
  return mirel::objectBehind(
      core_->authenticatedKeyForObjectID(mirel::textOfObject(keyObjectID), argument.pointer()));
}

- (TKTokenKeychainKey*)generalAuthenticateWithData:(NSData*)data
                                           dataTag:(NSInteger)dataTag
                                          usingKey:(TKTokenObjectID)keyObjectID
                                             error:(NSError**)error {
  mirel::ErrorArgument argument{error};
  return mirel::objectBehind(
      core_->generalAuthenticateWithData(mirel::bytesOf(data), static_cast<std::uint8_t>(dataTag),
                                         mirel::textOfObject(keyObjectID), argument.pointer()));
}

@end
