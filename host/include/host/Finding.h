#pragma once

#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace mirel {

/// What a check of the module, the reader, the card or one of its keys came to.
enum class Severity {
  kOk,
  kSkipped,  ///< not looked at, since what it needs is not there
  kUnknown,  ///< it was looked for and could not be told: a call failed
  kWarning,  ///< it works, but not for everything or not for long
  kFailure,  ///< it does not work
};

/// Who can do something about a finding.
enum class Remedier { kYou, kAdministrator, kIssuer, kMaker };

/// Everything that a diagnosis can find. The codes that users see ("MT-C03") stand in the catalogue and never
/// change their meaning.
enum class FindingID {
  // The module's file and its start.
  kModuleMissing,
  kModuleForOtherSystem,
  kModuleChangeableByOthers,
  kModuleNotLoadable,
  kModuleWithoutEntry,
  kModuleWantsParameters,
  kModuleDoesNotStart,
  kModuleListsNoSlots,
  kModuleSlow,
  kModuleCrashed,
  kModuleHangs,
  // The readers and the service behind them.
  kNoReader,
  kCardServiceSilent,
  kCardNotRecognised,
  kCardHeldByAnother,
  kCardMute,
  kReadersEmpty,
  kReaderUnknownToModule,
  kReaderNamesAlike,
  kReaderNameNotAscii,
  kTooManyCards,
  // The token.
  kTokenUnreadable,
  kTokenNotInitialised,
  kInstanceIDShared,
  kCardWentAway,
  kTrialDisturbed,
  kModuleEnded,
  kCardChanged,
  // Its objects.
  kCardEmpty,
  kObjectHidesCard,
  kObjectUnread,
  kObjectLeftOut,
  kCertificateUnusable,
  kPublicKeyMissing,
  kPublicKeyPrivate,
  kCertificateMissing,
  kCertificatePrivate,
  kPrivateKeyMissing,
  kCertificateOfOtherKey,
  kIDShared,
  kCertificateExpired,
  kCertificateNotYetValid,
  kKeyUsageMissing,
  kTooManyObjects,
  kNothingPublished,
  kCertificatesOfOneKey,
  // What its keys can do.
  kRsaKeyTooLong,
  kEcKeyNeverSigns,
  kKeyNameWithPss,
  kPinForEachUse,
  kNoPkcs1Signatures,
  kNoKeyAgreement,
  kKeyIDTooLong,
  kSignatureFails,
  kDecryptionFails,
  kPkcs1NotTried,
  kUseNotAllowed,
  // The PIN.
  kPinLocked,
  kPinLastTry,
  kPinTriesFewer,
  kPinPad,
  kPinTooLong,
  kPinNotSet,
  kPinCountUnknown,
  kPinRefused,
  kLoginNotMade,
  kPinToBeChanged,
  kLoginFails,
  // The system's part: the extension, and what the system sees of the card.
  kExtensionNotRegistered,
  kExtensionIgnored,
  kExtensionCopies,
  kCardNotInSystem,
  kKeyNotInSystem,
  kOtherDriverOnCard,
  kQuarantined,
  kSignatureInvalid,
  kEntitlementMissing,
  kNotNotarised,
  kSystemToolMissing,
  kSystemToolFails,
};

/// One thing that was found.
struct Finding {
  FindingID id;
  Severity severity;
  std::string subject;   ///< what it is about, fit for a terminal, such as: key 01 "Signature"; may be empty
  std::string evidence;  ///< what was seen, fit for a terminal: numbers, names, the answer of a call
};

/// What is said about a finding, wherever it turns up. Literals, UTF-8, without a full stop at the end.
// NOLINTNEXTLINE(clang-analyzer-optin.performance.Padding): rows begin with what they are about
struct FindingEntry {
  FindingID id;
  std::string_view code;    ///< "MT-C03"; stable
  std::string_view title;   ///< a clause: "the certificate belongs to another key"
  std::string_view why;     ///< why that matters, in words of what users do
  std::string_view remedy;  ///< what to do
  Remedier who;             ///< who can do that
};

/// All entries, in the order of their codes.
[[nodiscard]] std::span<const FindingEntry> findingCatalogue() noexcept;

[[nodiscard]] const FindingEntry& entryOf(FindingID id) noexcept;

/// Nothing where no entry has that code; upper and lower case are the same.
[[nodiscard]] const FindingEntry* findEntry(std::string_view code) noexcept;

/// True when `a` is worse than `b`.
[[nodiscard]] bool isWorse(Severity a, Severity b) noexcept;

/// The worst of them; kOk where there are none. A failure is worse than a warning, and that worse than what
/// is not known.
[[nodiscard]] Severity worstOf(std::span<const Finding> findings) noexcept;

}  // namespace mirel
