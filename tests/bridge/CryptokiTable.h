#pragma once

/// A Cryptoki header as a table of sizes, offsets, values and signatures. The table is made twice, once
/// of our header and once of the reference header, in two translation units, so that the two
/// headers never meet; the statements that make it are derived from our header when the tests are
/// built, so that nothing in it can be forgotten.

#include <cstddef>
#include <string>
#include <type_traits>
#include <vector>

namespace mirel::test {

struct CryptokiRow {
  std::string name;
  std::string value;
  [[nodiscard]] friend bool operator==(const CryptokiRow&, const CryptokiRow&) = default;
};

using CryptokiTable = std::vector<CryptokiRow>;

/// Of bridge/cryptoki.h: what both headers have, and what only ours has.
[[nodiscard]] CryptokiTable ourCommonRows();
[[nodiscard]] CryptokiTable ourOtherRows();

/// Of p11-kit's header: what both headers have.
[[nodiscard]] CryptokiTable referenceRows();

// ---- For the generated statements ----

[[nodiscard]] inline std::string text(unsigned long number) { return std::to_string(number); }
[[nodiscard]] inline std::string text(std::string value) { return value; }

/// How the machine sees a parameter: a number and its size, or a pointer and the size of its target.
template <typename Parameter>
[[nodiscard]] std::string parameterText() {
  if constexpr (std::is_pointer_v<Parameter>) {
    using Target = std::remove_pointer_t<Parameter>;
    if constexpr (std::is_function_v<Target>) {
      return "function";
    } else if constexpr (std::is_void_v<Target>) {
      return "pointer";
    } else {
      return "pointer to " + std::to_string(sizeof(Target));
    }
  } else {
    return (std::is_unsigned_v<Parameter> ? "unsigned " : "signed ") + std::to_string(sizeof(Parameter));
  }
}

template <typename List, typename Result, typename... Parameters>
[[nodiscard]] std::string signature(Result (*List::*)(Parameters...)) {
  std::string parameters;
  ((parameters += parameterText<Parameters>() + ", "), ...);
  return parameterText<Result>() + " (" + parameters + ")";
}

}  // namespace mirel::test
