#pragma once

#include "host/Failure.h"

namespace mirel::cli {

/// What `mireltoken` ends with; stable, and listed by --help and the README.
enum class ExitCode : int {
  kSuccess = 0,
  kInternal = 1,
  kUsage = 2,
  kModuleNotLoadable = 3,
  kModuleRefuses = 4,
  kNoCard = 5,
  kCardEnumerationFailed = 6,
};

[[nodiscard]] constexpr ExitCode exitCodeOf(FailureKind kind) noexcept {
  switch (kind) {
    case FailureKind::kModuleNotLoadable: return ExitCode::kModuleNotLoadable;
    case FailureKind::kModuleRefuses: return ExitCode::kModuleRefuses;
    case FailureKind::kNoCard: return ExitCode::kNoCard;
    case FailureKind::kCardEnumerationFailed: return ExitCode::kCardEnumerationFailed;
    case FailureKind::kInternal: break;
  }
  return ExitCode::kInternal;
}

}  // namespace mirel::cli
