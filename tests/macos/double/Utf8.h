#pragma once

#import <Foundation/Foundation.h>

#include <string>

namespace mirel::test {

/// The text of an object, U+0000 included; unpaired surrogates come out as something else. Empty for nil.
inline std::string utf8Of(id object) {
  NSData* const data = [[object description] dataUsingEncoding:NSUTF8StringEncoding allowLossyConversion:YES];
  return data ? std::string{static_cast<const char*>([data bytes]), [data length]} : std::string{};
}

}  // namespace mirel::test
