#include "Algorithms.h"

#include <array>
#include <tuple>

namespace mirel {
namespace {

#define MIREL_ADDRESS(name) &::kSecKeyAlgorithm##name,
/// In the order of SecKeyAlgorithm. Addresses, because the constants have no value before the program runs.
constexpr std::array kConstants{MIREL_SEC_KEY_ALGORITHMS(MIREL_ADDRESS)};
#undef MIREL_ADDRESS
static_assert(kConstants.size() == std::tuple_size_v<decltype(kSecKeyAlgorithms)>);

}  // namespace

::SecKeyAlgorithm constantOf(SecKeyAlgorithm algorithm) noexcept {
  return *kConstants[static_cast<std::size_t>(algorithm)];
}

}  // namespace mirel
