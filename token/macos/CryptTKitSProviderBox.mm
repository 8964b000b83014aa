#import "CryptTKitSProviderBox.h"

#import "Holder.h"

@implementation CryptTKitSProvider

+ (CryptTKitSProvider*)boxOf:(const std::shared_ptr<mirel::CryptTKitSProvider>&)provider {
  if (!provider) return nil;
  CryptTKitSProvider* box =
      mirel::ObjCHolder<CryptTKitSProvider>::adopt([[CryptTKitSProvider alloc] init]).autoreleased();
  box->provider_ = provider;
  return box;
}

+ (std::shared_ptr<mirel::CryptTKitSProvider>)providerIn:(CryptTKitSProvider*)box {
  return box ? box->provider_ : nullptr;
}

- (BOOL)isEqual:(id)other {
  return [other isKindOfClass:[CryptTKitSProvider class]] &&
         static_cast<CryptTKitSProvider*>(other)->provider_ == provider_;
}

- (NSUInteger)hash {
  return reinterpret_cast<NSUInteger>(provider_.get());
}

@end
