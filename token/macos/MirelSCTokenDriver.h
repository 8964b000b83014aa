#pragma once

#import <CryptoTokenKit/CryptoTokenKit.h>

#include <memory>

namespace mirel {
class MirelSCTokenDriver;
}

/// The extension's driver, which the platform makes by its name in Info.plist.
@interface MirelSCTokenDriver : TKSmartCardTokenDriver <TKSmartCardTokenDriverDelegate> {
 @private
  std::shared_ptr<mirel::MirelSCTokenDriver> core_;
}
@end
