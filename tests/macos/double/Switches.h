#pragma once

#include <functional>
#include <map>
#include <string>

namespace mirel::test {

/// What SecCertificateCopyValues answers about the key usage.
enum class KeyUsageForm {
  kBitNumbers,  ///< a number whose bit n is bit n of RFC 5280's bit string
  kHighBits,    ///< a number whose bit 15 - n is bit n of that bit string
  kText,        ///< a text instead of a number
  kNoValue,     ///< an entry that holds no value
  kError,       ///< no values at all, but an error
};

/// What SecCertificateCopyValues answers about the end of a certificate's validity.
enum class ValidityForm {
  kSeconds,  ///< a number of seconds since the first day of 2001
  kDate,     ///< a date object
  kText,     ///< a text instead
  kFarAway,  ///< a number beyond every calendar
};

/// How the platform behaves. Tests set these through a `ScopedSwitches`.
struct Switches {
  /// The base initialisers of tokens, sessions, items and PIN operations answer nil.
  bool refusesTokens = false;
  bool refusesSessions = false;
  bool refusesCertificateItems = false;
  bool refusesKeyItems = false;
  bool refusesPinOperations = false;
  /// Tokens have no keychain contents.
  bool withoutContents = false;
  /// Sessions have no connection to the card.
  bool withoutCard = false;
  /// Drivers, tokens and sessions are their own delegates without having said so. Nothing tells whether
  /// that is so on the platform.
  bool delegatesToItself = false;
  KeyUsageForm keyUsageForm = KeyUsageForm::kBitNumbers;
  ValidityForm validityForm = ValidityForm::kSeconds;
  /// Certificates have no summary of their subject.
  bool withoutSummary = false;
  /// What LSRegisterURL and CFUserNotificationDisplayAlert answer.
  int registrationStatus = 0;
  int messageStatus = 0;
  /// Base initialisers answer another object of the class than the one that was allocated.
  bool replacesObjects = false;
  /// Keys are not handed out as the objects that were filled in, but as plain key items with the same
  /// contents.
  bool copiesKeys = false;
  /// The error of a key that there is not tells more than its domain and code.
  bool explainsMissingKeys = false;
  /// A PIN that goes into a command is sent by the system itself, and the operation does not get it.
  bool sendsPinsItself = false;
  /// Called, with the object, when the base initialiser of a token or of a session runs.
  std::function<void(void*)> whenTokenIsInitialised = [](void*) {};
  std::function<void(void*)> whenSessionIsInitialised = [](void*) {};
  /// Called when keychain contents are being filled.
  std::function<void()> whenContentsAreFilled = [] {};
};

[[nodiscard]] Switches& switches();

/// All switches are back at their defaults when it goes.
class ScopedSwitches {
 public:
  ScopedSwitches() { switches() = {}; }
  ScopedSwitches(const ScopedSwitches&) = delete;
  ScopedSwitches& operator=(const ScopedSwitches&) = delete;
  ~ScopedSwitches() { switches() = {}; }
  Switches* operator->() { return &switches(); }
};

/// How many objects of the double live, by the names of the platform's classes; without those of which
/// there is none. Objects of derived classes count as their bases.
[[nodiscard]] std::map<std::string, int> livingObjects();

/// For the double's own use.
void countObject(const char* className, int change);

}  // namespace mirel::test
