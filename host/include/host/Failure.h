#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "host/Advice.h"

namespace mirel {

/// What kept the host from doing what it was asked.
enum class FailureKind {
  kInternal,
  kModuleNotLoadable,      ///< the PKCS #11 module cannot be loaded
  kModuleRefuses,          ///< the module does not initialise, or does not list its slots
  kNoCard,                 ///< there is no such reader, or no card in it
  kCardEnumerationFailed,  ///< the card's objects cannot be listed
  kPinWrong,
  kPinLocked,
  kPinHeldBack,         ///< a try is left for the user, so the PIN was not sent
  kPinCannotBeEntered,  ///< the card takes its PIN in another way, or no such PIN can be sent
  kCancelled,           ///< the user gave no PIN
  kNotSupported,        ///< the key does not do that, or not with that algorithm
  kVerificationFailed,  ///< there is no signature, or it does not verify
  kKeyNotFound,
  kCardRefuses,         ///< the card did not do what it was asked
  kBadInput,            ///< the data to work on have the wrong length
  kWrongUsage,          ///< what was asked for makes no sense
  kFileFailure,         ///< a file cannot be read or written
  kOutputFailure,       ///< standard output cannot be written
  kOutputUnread,        ///< the program that read standard output went away
  kAnotherCard,         ///< the reader holds another card than the one that was inserted
  kCardGone,            ///< the card, its reader or the service behind it went away
  kModuleCrashed,       ///< a signal such as SIGSEGV ended the process while the module was at work
  kModuleEndedProgram,  ///< the module called exit
  kModuleHangs,         ///< a call of the module did not return in time
  kNotRecorded,         ///< what is replayed was never recorded
};

/// A failure as the user is told it, UTF-8, each text without a full stop or line end.
struct Failure {
  FailureKind kind = FailureKind::kInternal;
  std::string what;                       ///< what did not work
  std::string why;                        ///< as the loader or the module says it
  Advice advice;                          ///< what the user can try
  bool isCauseKnown = false;              ///< `why` is the cause, and nothing of the card's objects can be it
  std::optional<std::uint64_t> result{};  ///< what the Cryptoki call answered that failed, if one did
  bool isCardUnasked = false;             ///< it says nothing of what the card would have done
  bool isKeyMissing = false;              ///< the card layer finds no private key with that ID
};

}  // namespace mirel
