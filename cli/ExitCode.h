#pragma once

#include <string_view>

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
  kFindingsWarn = 19,
  kFindingsFail = 20,
  kModuleCrashed = 21,
  kModuleEndedProgram = 22,
  kModuleHangs = 23,
  kNotRecorded = 24,
  kOutputUnread = 141,  ///< as a shell shows a program that SIGPIPE has ended
};

/// How programs tell the kinds of failures apart.
struct ErrorTerms {
  ExitCode exitCode;
  std::string_view id;  ///< with --json; stable, and listed by docs/json.md and its schema
};

[[nodiscard]] constexpr ErrorTerms errorTermsOf(FailureKind kind) noexcept {
  switch (kind) {
    case FailureKind::kModuleNotLoadable: return {ExitCode::kModuleNotLoadable, "module-not-loadable"};
    case FailureKind::kModuleRefuses: return {ExitCode::kModuleRefuses, "module-refuses"};
    case FailureKind::kNoCard: return {ExitCode::kNoCard, "no-card"};
    case FailureKind::kCardEnumerationFailed: return {ExitCode::kCardEnumerationFailed, "card-not-listed"};
    case FailureKind::kPinWrong: return {ExitCode::kPinWrong, "pin-wrong"};
    case FailureKind::kPinLocked: return {ExitCode::kPinLocked, "pin-locked"};
    case FailureKind::kPinHeldBack: return {ExitCode::kPinHeldBack, "pin-held-back"};
    case FailureKind::kPinCannotBeEntered: return {ExitCode::kPinCannotBeEntered, "pin-cannot-be-entered"};
    case FailureKind::kCancelled: return {ExitCode::kCancelled, "cancelled"};
    case FailureKind::kNotSupported: return {ExitCode::kNotSupported, "not-supported"};
    case FailureKind::kVerificationFailed: return {ExitCode::kVerificationFailed, "not-verified"};
    case FailureKind::kKeyNotFound: return {ExitCode::kKeyNotFound, "key-not-found"};
    case FailureKind::kCardRefuses: return {ExitCode::kCardRefuses, "card-refuses"};
    case FailureKind::kBadInput: return {ExitCode::kUsage, "bad-input"};
    case FailureKind::kWrongUsage: return {ExitCode::kUsage, "wrong-usage"};
    case FailureKind::kFileFailure: return {ExitCode::kFileFailure, "file-failure"};
    case FailureKind::kOutputFailure: return {ExitCode::kFileFailure, "output-failure"};
    case FailureKind::kOutputUnread: return {ExitCode::kOutputUnread, "output-unread"};
    case FailureKind::kAnotherCard: return {ExitCode::kAnotherCard, "another-card"};
    case FailureKind::kCardGone: return {ExitCode::kCardGone, "card-gone"};
    case FailureKind::kModuleCrashed: return {ExitCode::kModuleCrashed, "module-crashed"};
    case FailureKind::kModuleEndedProgram: return {ExitCode::kModuleEndedProgram, "module-ended-program"};
    case FailureKind::kModuleHangs: return {ExitCode::kModuleHangs, "module-hangs"};
    case FailureKind::kNotRecorded: return {ExitCode::kNotRecorded, "not-recorded"};
    case FailureKind::kInternal: break;
  }
  return {ExitCode::kInternal, "internal"};
}

[[nodiscard]] constexpr ExitCode exitCodeOf(FailureKind kind) noexcept { return errorTermsOf(kind).exitCode; }

}  // namespace mirel::cli
