#pragma once

#include "host/Failure.h"

namespace mirel::cli {

/// What `mireltoken` ends with; stable, and listed by --help, the manual page and docs/command-line.md.
enum class ExitCode : int {
  kSuccess = 0,
  kInternal = 1,
  kUsage = 2,
  kModuleNotLoadable = 3,
  kModuleRefuses = 4,
  kNoCard = 5,
  kCardEnumerationFailed = 6,
  kPinWrong = 7,
  kPinLocked = 8,
  kCancelled = 9,
  kNotSupported = 10,
  kVerificationFailed = 11,
  kKeyNotFound = 12,
  kCardRefuses = 13,
  kFileFailure = 14,
  kAnotherCard = 15,
  kCardGone = 16,
  kPinHeldBack = 17,
  kPinCannotBeEntered = 18,
};

[[nodiscard]] constexpr ExitCode exitCodeOf(FailureKind kind) noexcept {
  switch (kind) {
    case FailureKind::kModuleNotLoadable: return ExitCode::kModuleNotLoadable;
    case FailureKind::kModuleRefuses: return ExitCode::kModuleRefuses;
    case FailureKind::kNoCard: return ExitCode::kNoCard;
    case FailureKind::kCardEnumerationFailed: return ExitCode::kCardEnumerationFailed;
    case FailureKind::kPinWrong: return ExitCode::kPinWrong;
    case FailureKind::kPinLocked: return ExitCode::kPinLocked;
    case FailureKind::kPinHeldBack: return ExitCode::kPinHeldBack;
    case FailureKind::kPinCannotBeEntered: return ExitCode::kPinCannotBeEntered;
    case FailureKind::kCancelled: return ExitCode::kCancelled;
    case FailureKind::kNotSupported: return ExitCode::kNotSupported;
    case FailureKind::kVerificationFailed: return ExitCode::kVerificationFailed;
    case FailureKind::kKeyNotFound: return ExitCode::kKeyNotFound;
    case FailureKind::kCardRefuses: return ExitCode::kCardRefuses;
    case FailureKind::kBadInput: return ExitCode::kUsage;
    case FailureKind::kFileFailure: return ExitCode::kFileFailure;
    case FailureKind::kAnotherCard: return ExitCode::kAnotherCard;
    case FailureKind::kCardGone: return ExitCode::kCardGone;
    case FailureKind::kInternal: break;
  }
  return ExitCode::kInternal;
}

}  // namespace mirel::cli
