#pragma once

#include <algorithm>
#include <array>
#include <string_view>

#include "bridge/CryptokiFunctions.h"
#include "bridge/cryptoki.h"

namespace mirel {

/// The names that the standard gives to what a module has and answers: one list of each kind, for all who
/// show them to somebody.

/// The functions, in the order of CK_FUNCTION_LIST.
#define MIREL_NAME(name) #name,
inline constexpr std::array<std::string_view, AllFunctions::kCount> kCryptokiFunctionNames{
    MIREL_CRYPTOKI_FUNCTIONS(MIREL_NAME)};
#undef MIREL_NAME

[[nodiscard]] constexpr bool isCryptokiFunction(std::string_view name) noexcept {
  return std::find(kCryptokiFunctionNames.begin(), kCryptokiFunctionNames.end(), name) !=
         kCryptokiFunctionNames.end();
}

/// The name of a function that sources write down, to compare it or to ask for it: one that is not in the
/// list does not compile.
class CryptokiFunction {
 public:
  constexpr CryptokiFunction() noexcept = default;              ///< none
  consteval CryptokiFunction(const char* name) : name_{name} {  // NOLINT(google-explicit-constructor)
    if (!isCryptokiFunction(name_)) throw "PKCS #11 has no function of this name";
  }

  [[nodiscard]] constexpr std::string_view name() const noexcept { return name_; }

 private:
  std::string_view name_;
};

/// A result code's name ("CKR_DEVICE_ERROR"); empty when the standard has none for it.
[[nodiscard]] std::string_view cryptokiResultName(CK_RV result) noexcept;

/// The name of one bit of a token's flags, without "CKF_"; empty when the standard has none for it.
[[nodiscard]] std::string_view tokenFlagName(CK_FLAGS flag) noexcept;

/// The same for a slot's flags.
[[nodiscard]] std::string_view slotFlagName(CK_FLAGS flag) noexcept;

}  // namespace mirel
