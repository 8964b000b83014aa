#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <vector>

#include "bridge/cryptoki.h"
#include "host/Finding.h"
#include "host/Host.h"

namespace mirel {

/// Whether a finding of that kind says that what is in the reader is not known, or not the card any more.
[[nodiscard]] constexpr bool isUnreadToken(FindingID id) noexcept {
  return id == FindingID::kTokenUnreadable || id == FindingID::kCardWentAway || id == FindingID::kModuleEnded;
}

/// Whether a finding of that kind says that there is nothing more to look at.
[[nodiscard]] constexpr bool endsExamination(FindingID id) noexcept {
  return id == FindingID::kCardWentAway || id == FindingID::kModuleEnded;
}

/// Why what comes after such a finding is left out.
[[nodiscard]] constexpr const char* endingText(FindingID id) noexcept {
  return id == FindingID::kModuleEnded ? "the module was ended" : "the card went away";
}

/// Which of these the answer of a call is that found the card gone, or the module; kCardWentAway where there
/// is no such answer.
[[nodiscard]] constexpr FindingID goneFindingOf(std::optional<std::uint64_t> answer) noexcept {
  return answer == CKR_CRYPTOKI_NOT_INITIALIZED ? FindingID::kModuleEnded : FindingID::kCardWentAway;
}

/// What the token information says of the card's PIN, one finding for each state that there is.
[[nodiscard]] std::vector<Finding> pinFindings(const CK_TOKEN_INFO& token);

/// The other cards that the system takes for this one: a finding for each reader but `reader` that holds a
/// card with that instance ID.
[[nodiscard]] std::vector<Finding> sharedInstanceFindings(const Reader& reader, const Text& instanceID,
                                                          std::span<const Reader> readers);

}  // namespace mirel
