#include "platform/SecKeyAlgorithm.h"

#include <algorithm>

namespace mirel {

#define MIREL_ROW(name) \
  SecKeyAlgorithmName{SecKeyAlgorithm::kSecKeyAlgorithm##name, "kSecKeyAlgorithm" #name},
const std::array<SecKeyAlgorithmName, 76> kSecKeyAlgorithms{{MIREL_SEC_KEY_ALGORITHMS(MIREL_ROW)}};
#undef MIREL_ROW

std::string_view nameOf(SecKeyAlgorithm algorithm) noexcept {
  return kSecKeyAlgorithms[static_cast<std::size_t>(algorithm)].name;
}

std::optional<SecKeyAlgorithm> secKeyAlgorithmNamed(std::string_view name) noexcept {
  if (name.starts_with(kSecKeyAlgorithmPrefix)) name.remove_prefix(kSecKeyAlgorithmPrefix.size());
  const auto* const row =
      std::find_if(kSecKeyAlgorithms.begin(), kSecKeyAlgorithms.end(), [&](const SecKeyAlgorithmName& known) {
        return known.name.substr(kSecKeyAlgorithmPrefix.size()) == name;
      });
  return row == kSecKeyAlgorithms.end() ? std::nullopt : std::optional{row->algorithm};
}

std::optional<Hash> hashOf(SecKeyAlgorithm algorithm) noexcept {
  for (const Hash hash : {Hash::kSHA1, Hash::kSHA224, Hash::kSHA256, Hash::kSHA384, Hash::kSHA512}) {
    if (nameOf(algorithm).find(factsOf(hash).name) != std::string_view::npos) return hash;
  }
  return std::nullopt;
}

}  // namespace mirel
