#pragma once

#if defined(__SANITIZE_ADDRESS__)
#define MIREL_ADDRESS_SANITIZER 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define MIREL_ADDRESS_SANITIZER 1
#endif
#endif

namespace mirel::test {

#ifdef MIREL_ADDRESS_SANITIZER
inline constexpr bool kHasAddressSanitizer = true;
#else
inline constexpr bool kHasAddressSanitizer = false;
#endif

}  // namespace mirel::test
