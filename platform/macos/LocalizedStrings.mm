#include "platform/LocalizedStrings.h"

#import <Foundation/Foundation.h>

#include <string>

#include "Convert.h"
#include "Guard.h"

namespace mirel {
namespace {

class BundleStrings final : public LocalizedStrings {
 public:
  Text localizedString(std::string_view key) noexcept override {
    @autoreleasepool {
      NSString* name = stringOf(Text::fromUtf8(key));
      return textOf(guarded("a text is not translated", [&] {
        return [[NSBundle mainBundle] localizedStringForKey:name value:@"" table:nil];
      }));
    }
  }
};

}  // namespace

std::shared_ptr<LocalizedStrings> systemLocalizedStrings() { return std::make_shared<BundleStrings>(); }

}  // namespace mirel
