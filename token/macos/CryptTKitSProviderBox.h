#pragma once

#import <Foundation/Foundation.h>

#include <memory>

#include "provider/CryptTKitSProvider.h"

/// The provider as an Objective-C object, for the properties that hold it. Two boxes of one provider are
/// equal.
@interface CryptTKitSProvider : NSObject {
 @private
  std::shared_ptr<mirel::CryptTKitSProvider> provider_;
}

/// Nil for no provider.
+ (nullable CryptTKitSProvider*)boxOf:(const std::shared_ptr<mirel::CryptTKitSProvider>&)provider;

/// Null for nil.
+ (std::shared_ptr<mirel::CryptTKitSProvider>)providerIn:(nullable CryptTKitSProvider*)box;

@end
