#pragma once

#import <CryptoTokenKit/CryptoTokenKit.h>

#import "CoreHolder.h"

namespace mirel {
class MirelSCTokenDriver;
}

/// The extension's driver, which the platform makes by its name in Info.plist.
@interface MirelSCTokenDriver : TKSmartCardTokenDriver <TKSmartCardTokenDriverDelegate> {
 @private
  mirel::CoreHolder<mirel::MirelSCTokenDriver> core_;
}
@end
