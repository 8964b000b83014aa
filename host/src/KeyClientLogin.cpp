#include <algorithm>
#include <utility>

#include "CardWatch.h"
#include "CodeMeaning.h"
#include "FailureDiary.h"
#include "HostToken.h"
#include "bridge/P11Bridge.h"
#include "host/CryptokiNames.h"
#include "host/Display.h"
#include "host/KeyClient.h"
#include "host/PinSource.h"
#include "platform/SecretBytes.h"

namespace mirel {
namespace {

constexpr std::u16string_view kPinConstraint = u"PIN";

std::string nameOf(const Reader& reader) {
  const std::string place = "the reader \"" + displayed(reader.name) + "\"";
  if (reader.tokenLabel.isEmpty()) return "the card in " + place;
  const std::string label = "\"" + displayed(reader.tokenLabel) + "\"";
  return reader.labelIsShared ? label + " in " + place : label;
}

/// Whether that PIN can be sent to a card as it was entered. The token would count its characters, but send
/// as many bytes of its UTF-8, and so cut one that is not ASCII.
Result<void> checkSending(const SecretText& pin) {
  const auto notSent = [](const char* why) {
    return Failure{
        FailureKind::kPinCannotBeEntered, "the PIN was not sent to the card", why,
        "give a PIN of 1 to 8 ASCII characters; where it was the right one, this card's PIN cannot be "
        "entered here: change it to at most 8 ASCII characters with the tool of the card's maker"};
  };
  static_assert(kMaxPinLen == 8, "the texts name the number");
  SecretBytes<kMaxPinLen + 1> bytes;
  const std::size_t size = pin.copyUtf8(bytes.span());
  if (size == 0) return notSent("it is empty");
  if (std::any_of(bytes.data(), bytes.data() + size, [](std::uint8_t byte) { return byte >= 0x80; }))
    return notSent("it has characters that are not ASCII");
  if (size > kMaxPinLen) return notSent("it has more than 8 characters");
  return {};
}

}  // namespace

/// Asks for PINs and has the card check them. The card was looked for just now.
Result<void> KeyClient::authenticate(const Text& constraint, PinSource& pins) {
  int notSent = 0;
  for (int attempt = 1;; ++attempt) {
    if (attempt > 1 || notSent > 0) {
      if (const auto card = lookForCard(); !card) return card.failure();
    }
    std::optional<TKError> error;
    const auto pinOperation = session_->beginAuthForOperation(constraint, &error);
    if (!pinOperation) {
      const std::string text = wordsOf(error);
      return Failure{FailureKind::kNotSupported, "the key cannot be unlocked",
                     text.empty() ? "the token begins no authentication" : "the token says " + text,
                     UserStep::kSeeLog};
    }
    auto entered = pins.askForPin(nameOf(card_.reader));
    if (!entered) return entered.failure();
    std::shared_ptr<const SecretText>& pin = *entered;
    if (!pin) {
      return Failure{FailureKind::kCancelled, "no PIN was given", "the entry was cancelled",
                     "run again to try once more"};
    }
    if (const auto fit = checkSending(*pin); !fit) {
      if (++notSent == kMostPins || !pins.canAskAgain()) return fit.failure();
      --attempt;  // it was none: the card has not been asked
      pins.showRefusal(fit.failure().what + ": " + fit.failure().why);
      continue;
    }
    // As late as can be: the user may have taken any time.
    if (const auto card = lookForCard(); !card) return card.failure();
    diary_->clear();
    const bool accepted = pinOperation->finishWithPIN(std::exchange(pin, nullptr), &error);
    if (accepted) return {};

    const std::string text = wordsOf(error);
    Failure failure =
        loginFailure(text.empty() ? "the PIN is wrong" : "the PIN is wrong, the token says " + text);
    const bool last = attempt == kMostPins || !pins.canAskAgain();
    if (failure.kind == FailureKind::kPinLocked) return failure;
    if (failure.kind != FailureKind::kPinWrong) return unlessCardLeft(failure);
    if (last) return failure;
    pins.showRefusal(failure.what);
  }
}

/// `wrongPin`: what is told where the card has found the PIN wrong.
Failure KeyClient::loginFailure(const std::string& wrongPin) {
  const auto answer = diary_->lastResultOf("C_Login");
  if (!answer) {
    return refusal("the PIN was not sent to the card", "it is not there any more",
                   "insert the card and run again");
  }
  const FailedCall login{"C_Login", *answer};
  const auto decided = meaningOf(login.name, login.result).kind;
  if (decided == FailureKind::kPinWrong) return failureBecauseOf(login, wrongPin, FailureKind::kPinWrong);
  if (decided == FailureKind::kPinLocked)
    return failureBecauseOf(login, "the PIN of the card is locked", FailureKind::kPinLocked);
  const char* what = "the card did not take the PIN";
  if (!diary_->cause() && *answer != CKR_OK) {
    // The framework has looked at the session since, so the diary does not tell any more.
    return failureBecauseOf(login, what, FailureKind::kCardRefuses);
  }
  const auto ended = diary_->lastResultOf(BridgeOperation::pkcs11_UserLogin);
  return refusal(what,
                 !ended || *ended == kLoginDidNotTake
                     ? "the login left no user logged in"
                     : answerText({operationName(BridgeOperation::pkcs11_UserLogin), *ended}),
                 UserStep::kSeeLog);
}

Result<void> KeyClient::logIn(PinSource& pins) {
  if (const auto card = lookForCard(); !card) return card.failure();
  if (const auto done = authenticate(Text{kPinConstraint}, pins); !done) return done.failure();
  if (diary_->lastResultOf("C_Login") != CKR_USER_ALREADY_LOGGED_IN) return {};
  Failure unchecked{FailureKind::kCardRefuses, "the PIN was not checked",
                    "the card's software was logged in already (C_Login answered " +
                        cryptokiResultText(CKR_USER_ALREADY_LOGGED_IN) + ")",
                    "end the other programs that use the card and run again"};
  unchecked.result = CKR_USER_ALREADY_LOGGED_IN;
  return unchecked;
}

}  // namespace mirel
