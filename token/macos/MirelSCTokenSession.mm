#import "MirelSCTokenSession.h"

#import "Convert.h"
#import "Errors.h"
#import "Initialisation.h"
#import "MirelSCToken.h"
#import "MirelSCTokenAuth.h"
#import "Ports.h"

#include "token/MirelSCToken.h"
#include "token/MirelSCTokenSession.h"

namespace {

/// Null for a token that is none of ours.
const mirel::MirelSCToken* coreOf(TKToken* token) {
  if (![token isKindOfClass:[MirelSCToken class]]) return nullptr;
  return [static_cast<MirelSCToken*>(token) mirel_core].shared().get();
}

}  // namespace

void algorithmToPrint(TKTokenKeyAlgorithm* algorithm) {
  mirel::algorithmToPrint(mirel::AlgorithmPort{algorithm}, *mirel::extensionServices().log);
}

@implementation MirelSCTokenSession

// The initialiser of the base runs where the core wants it to.
#pragma clang diagnostic push
#pragma clang diagnostic ignored "-Wobjc-designated-initializers"
- (instancetype)initWithToken:(TKToken*)token {
  mirel::Initialisation<MirelSCTokenSession> session{self};
  const auto core = core_;  // the base initialiser may give another object
  const auto superInit = [&] {
    const bool made = session.runSuper(
        [&](MirelSCTokenSession* allocated) { return [allocated mirel_superInitWithToken:token]; });
    if (!made) return false;
    session.get()->core_ = core;
    session.becomeOwnDelegate();
    return true;
  };
  (void)core->initWithToken(coreOf(token), superInit);
  self = session.take();
  return self;
}
#pragma clang diagnostic pop

- (id)mirel_superInitWithToken:(TKToken*)token {
  return [super initWithToken:token];
}

- (const mirel::CoreHolder<mirel::MirelSCTokenSession>&)mirel_core {
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
  if (!core_->beginAuthForOperation(mirel::textOfObject(constraint), argument.pointer())) return nil;
  return mirel::ObjCHolder<MirelSCTokenAuth>::adopt([[MirelSCTokenAuth alloc] initWithSession:self])
      .autoreleased();
}

- (BOOL)tokenSession:(TKTokenSession*)session
    supportsOperation:(TKTokenOperation)operation
             usingKey:(TKTokenObjectID)keyObjectID
            algorithm:(TKTokenKeyAlgorithm*)algorithm {
  mirel::SessionPort port{self};
  return core_->supportsOperation(port, static_cast<mirel::TKTokenOperation>(operation),
                                  mirel::textOfObject(keyObjectID), mirel::AlgorithmPort{algorithm});
}

- (NSData*)tokenSession:(TKTokenSession*)session
               signData:(NSData*)dataToSign
               usingKey:(TKTokenObjectID)keyObjectID
              algorithm:(TKTokenKeyAlgorithm*)algorithm
                  error:(NSError**)error {
  const mirel::Bytes data = mirel::bytesOf(dataToSign);
  if (data.isNull() && dataToSign) return nil;  // no signature of anything else
  mirel::SessionPort port{self};
  mirel::ErrorArgument argument{error};
  return mirel::dataOf(core_->signData(port, data, mirel::textOfObject(keyObjectID),
                                       mirel::AlgorithmPort{algorithm}, argument.pointer()));
}

- (NSData*)tokenSession:(TKTokenSession*)session
            decryptData:(NSData*)ciphertext
               usingKey:(TKTokenObjectID)keyObjectID
              algorithm:(TKTokenKeyAlgorithm*)algorithm
                  error:(NSError**)error {
  const mirel::Bytes data = mirel::bytesOf(ciphertext);
  if (data.isNull() && ciphertext) return nil;
  mirel::SessionPort port{self};
  mirel::ErrorArgument argument{error};
  return mirel::dataOf(core_->decryptData(port, data, mirel::textOfObject(keyObjectID),
                                          mirel::AlgorithmPort{algorithm}, argument.pointer()));
}

- (NSData*)tokenSession:(TKTokenSession*)session
    performKeyExchangeWithPublicKey:(NSData*)otherPartyPublicKeyData
                           usingKey:(TKTokenObjectID)keyObjectID
                          algorithm:(TKTokenKeyAlgorithm*)algorithm
                         parameters:(TKTokenKeyExchangeParameters*)parameters
                              error:(NSError**)error {
  mirel::SessionPort port{self};
  mirel::ErrorArgument argument{error};
  return mirel::dataOf(core_->performKeyExchangeWithPublicKey(
      port, mirel::textOfObject(keyObjectID), mirel::AlgorithmPort{algorithm}, argument.pointer()));
}

- (TKTokenKeychainKey*)authenticatedKeyForObjectID:(TKTokenObjectID)keyObjectID error:(NSError**)error {
  mirel::SessionPort port{self};
  mirel::ErrorArgument argument{error};
  const bool usable =
      core_->authenticatedKeyForObjectID(port, mirel::textOfObject(keyObjectID), argument.pointer());
  return usable ? port.takeFoundKey() : nil;
}

- (TKTokenKeychainKey*)generalAuthenticateWithData:(NSData*)data
                                           dataTag:(NSInteger)dataTag
                                          usingKey:(TKTokenObjectID)keyObjectID
                                             error:(NSError**)error {
  mirel::SessionPort port{self};
  mirel::ErrorArgument argument{error};
  const bool usable = core_->generalAuthenticateWithData(
      port, mirel::bytesOf(data), dataTag, mirel::textOfObject(keyObjectID), argument.pointer());
  return usable ? port.takeFoundKey() : nil;
}

@end
