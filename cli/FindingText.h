#pragma once

#include <string>
#include <string_view>

#include "host/Finding.h"

namespace mirel::cli {

/// "failure"; as programs get it.
[[nodiscard]] std::string_view severityName(Severity severity) noexcept;

/// "issuer"; as programs get it.
[[nodiscard]] std::string_view remedierName(Remedier who) noexcept;

/// "the issuer of the card"; as people get it.
[[nodiscard]] std::string_view wordsOf(Remedier who) noexcept;

/// A line of a finding: what it tells, and the text.
[[nodiscard]] std::string findingLine(std::string_view what, std::string_view text);

/// Why it matters, what to do, and who can do that, in lines.
[[nodiscard]] std::string bodyOf(const FindingEntry& entry);

}  // namespace mirel::cli
