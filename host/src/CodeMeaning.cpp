#include "CodeMeaning.h"

#include <algorithm>
#include <iterator>

#include "bridge/BridgeOperation.h"
#include "bridge/CardRules.h"
#include "bridge/cryptoki.h"
#include "host/CryptokiNames.h"

namespace mirel {
namespace {

constexpr CryptokiFunction kAny{};
constexpr auto kOfTheCommand = std::nullopt;

constexpr std::string_view kEnded =
    "the connection to the card has ended: it was taken out, or its service stopped";
constexpr std::string_view kSaysNothing =
    "the module does not say what failed; another program may use the card at the same time, the card have "
    "been changed, or its service stopped";
constexpr std::string_view kCannotDecrypt =
    "the module does not say what failed; the data may be damaged, the card changed, or its service stopped";
constexpr std::string_view kNotForThisKey = "the data are damaged, or were not encrypted for this key";
constexpr std::string_view kWrongSize = "the data have a length or form that the key does not take";
constexpr std::string_view kKeyIsGone = "the key is not on the card any more, or hidden without the PIN";
constexpr std::string_view kNotWithThisKey = "the card does not allow this use of the key";
constexpr std::string_view kNotThisAlgorithm = "the card does not work with this algorithm";
constexpr std::string_view kSomebodyElse = "another user, such as the security officer, is logged in";
constexpr std::string_view kObjectLacks = "an object of the card lacks what is read of it";

constexpr Advice kPutBack = "put the card into its reader and run again";
constexpr Advice kCheckAll =
    "check the card, its reader and the service of the card software, then run again";
constexpr Advice kAgainFirst =
    "run again; where that does not help, check the card, its reader and the service of the card software";
constexpr Advice kCheckData =
    "check that the data were encrypted for this key, with PKCS #1 v1.5 padding: the card layer knows no "
    "other";
constexpr Advice kOtherKeyOrAlgorithm = "try another algorithm or key";
constexpr Advice kOtherKey = UserStep::kChooseAnotherKey;
constexpr Advice kCloseOthers = "close other programs that use the card, then run again";
constexpr Advice kEnterPin = "enter the PIN of this card";
constexpr Advice kMakersTool = "use the tool of the card's maker";
constexpr Advice kBehindProxy = "put the module behind p11-kit-proxy, with its parameters as x-init-reserved";
constexpr Advice kAskMaker = "ask the maker of the module";
constexpr Advice kIssuer = "have the card's issuer mend it, or use another key";

static_assert(kAnnouncedSlots == 10, "texts below name the number");

/// The row that names the function comes before the one for any.
constexpr CodeMeaning kMeanings[] = {
    // The card or its service is gone.
    {CKR_DEVICE_REMOVED, kAny, "the card or its reader was taken away", kPutBack, FailureKind::kCardGone},
    {CKR_TOKEN_NOT_PRESENT, kAny, "there is no card in the reader", kPutBack, FailureKind::kCardGone},
    {CKR_SLOT_ID_INVALID, kAny, "the reader is not there any more, or holds no card", kPutBack,
     FailureKind::kCardGone},
    {CKR_SESSION_HANDLE_INVALID, kAny, kEnded, kPutBack, FailureKind::kCardGone},
    {CKR_SESSION_CLOSED, kAny, kEnded, kPutBack, FailureKind::kCardGone},
    {CKR_CRYPTOKI_NOT_INITIALIZED, kAny, "the module was ended while it was in use", kCheckAll,
     FailureKind::kCardGone},
    // The module does not start.
    {CKR_ARGUMENTS_BAD, "C_Initialize", "the module wants parameters at its start", kBehindProxy,
     FailureKind::kModuleRefuses},
    // The card, the reader or the module is not well.
    {CKR_TOKEN_NOT_RECOGNIZED, kAny, "the module does not know this card, or cannot reach it",
     "check that the card is the right way round and that the module is for it", kOfTheCommand},
    {CKR_DEVICE_ERROR, "C_GetSlotInfo", "another program holds the card, or the reader does not work",
     kCloseOthers, kOfTheCommand},
    {CKR_DEVICE_ERROR, kAny, "the card or its reader does not work as it should, or its service stopped",
     kCheckAll, kOfTheCommand},
    {CKR_DEVICE_MEMORY, kAny, "the card has no memory left for this",
     "take the card out, put it back and run again", kOfTheCommand},
    {CKR_HOST_MEMORY, kAny, "there is no memory left, or the service that the module needs does not run",
     kCheckAll, kOfTheCommand},
    {CKR_GENERAL_ERROR, "C_Decrypt", kCannotDecrypt, kCheckData, kOfTheCommand},
    {CKR_FUNCTION_FAILED, "C_Decrypt", kCannotDecrypt, kCheckData, kOfTheCommand},
    // To try a PIN once more may cost a try.
    {CKR_GENERAL_ERROR, "C_Login", kSaysNothing, kCheckAll, kOfTheCommand},
    {CKR_FUNCTION_FAILED, "C_Login", kSaysNothing, kCheckAll, kOfTheCommand},
    {CKR_GENERAL_ERROR, kAny, kSaysNothing, kAgainFirst, kOfTheCommand},
    {CKR_FUNCTION_FAILED, kAny, kSaysNothing, kAgainFirst, kOfTheCommand},
    {CKR_SESSION_COUNT, kAny, "the card takes no more connections", kCloseOthers, kOfTheCommand},
    {CKR_FUNCTION_NOT_SUPPORTED, kAny, "the module does not have this function", kAskMaker, kOfTheCommand},
    {CKR_BUFFER_TOO_SMALL, "C_GetSlotList", "there are more than 10 cards, or slots of cards",
     "leave a card in 10 readers at most, in fewer where a card has several slots", kOfTheCommand},
    {CKR_BUFFER_TOO_SMALL, kAny, "the module gives more than this system takes", kAskMaker, kOfTheCommand},
    {CKR_OPERATION_ACTIVE, kAny, "an earlier request to the card has not ended", "run again", kOfTheCommand},
    // The key, the algorithm and the data.
    {CKR_USER_NOT_LOGGED_IN, kAny,
     "the card wants the PIN before this, or once more, as after a use by another program",
     "run again and enter the PIN", kOfTheCommand},
    {CKR_KEY_FUNCTION_NOT_PERMITTED, kAny, kNotWithThisKey, kOtherKey, kOfTheCommand},
    {CKR_KEY_TYPE_INCONSISTENT, kAny, kNotWithThisKey, kOtherKey, kOfTheCommand},
    {CKR_KEY_SIZE_RANGE, kAny, "the card does not work with a key of this size", kOtherKey, kOfTheCommand},
    {CKR_KEY_HANDLE_INVALID, kAny, kKeyIsGone, "run again", kOfTheCommand},
    {CKR_OBJECT_HANDLE_INVALID, kAny, kKeyIsGone, "run again", kOfTheCommand},
    {CKR_MECHANISM_INVALID, kAny, kNotThisAlgorithm, kOtherKeyOrAlgorithm, kOfTheCommand},
    {CKR_MECHANISM_PARAM_INVALID, kAny, kNotThisAlgorithm, kOtherKeyOrAlgorithm, kOfTheCommand},
    {CKR_DATA_INVALID, "C_Decrypt", kNotForThisKey, kCheckData, kOfTheCommand},
    {CKR_DATA_LEN_RANGE, "C_Decrypt", kNotForThisKey, kCheckData, kOfTheCommand},
    {CKR_DATA_INVALID, kAny, kWrongSize, kOtherKeyOrAlgorithm, kOfTheCommand},
    {CKR_DATA_LEN_RANGE, kAny, kWrongSize, kOtherKeyOrAlgorithm, kOfTheCommand},
    {CKR_ENCRYPTED_DATA_INVALID, kAny, kNotForThisKey, kCheckData, kOfTheCommand},
    {CKR_ENCRYPTED_DATA_LEN_RANGE, kAny, kNotForThisKey, kCheckData, kOfTheCommand},
    {CKR_ATTRIBUTE_TYPE_INVALID, "C_GetAttributeValue", kObjectLacks, kIssuer, kOfTheCommand},
    {CKR_ATTRIBUTE_SENSITIVE, "C_GetAttributeValue", kObjectLacks, kIssuer, kOfTheCommand},
    // The PIN.
    {CKR_PIN_INCORRECT, kAny, {}, kEnterPin, FailureKind::kPinWrong},
    {CKR_PIN_INVALID, kAny, "the PIN has characters that the card does not take", kEnterPin,
     FailureKind::kPinWrong},
    {CKR_PIN_LEN_RANGE, kAny, "the PIN is too short or too long for the card", kEnterPin,
     FailureKind::kPinWrong},
    {CKR_PIN_LOCKED,
     kAny,
     {},
     "unlock it with the PUK, or have the card's issuer unlock it",
     FailureKind::kPinLocked},
    {CKR_PIN_EXPIRED, kAny, "the PIN is out of date and has to be changed", kMakersTool, kOfTheCommand},
    {CKR_USER_PIN_NOT_INITIALIZED, kAny, "the card has no PIN yet", kMakersTool, kOfTheCommand},
    {CKR_USER_ANOTHER_ALREADY_LOGGED_IN, kAny, kSomebodyElse, kCloseOthers, kOfTheCommand},
    {CKR_USER_TOO_MANY_TYPES, kAny, kSomebodyElse, kCloseOthers, kOfTheCommand},
};

constexpr CodeMeaning kUnknown{0, kAny, "a code that has no known reason here", UserStep::kSeeLogAndAskMaker,
                               kOfTheCommand};

/// Whether that is about the card as a whole, its reader or the module, whatever objects the card has.
bool isOfDevice(std::uint64_t code) {
  constexpr std::uint64_t kCodes[] = {
      CKR_DEVICE_ERROR,  CKR_DEVICE_MEMORY,          CKR_HOST_MEMORY,      CKR_TOKEN_NOT_RECOGNIZED,
      CKR_SESSION_COUNT, CKR_FUNCTION_NOT_SUPPORTED, CKR_BUFFER_TOO_SMALL, CKR_OPERATION_ACTIVE};
  return std::find(std::begin(kCodes), std::end(kCodes), code) != std::end(kCodes);
}

/// Whether a call that failed so has asked nothing of a key, nor of the PIN.
bool asksOfNoKey(const FailedCall& call) {
  constexpr std::string_view kAsking[] = {"C_Login",       "C_SignInit", "C_Sign",
                                          "C_DecryptInit", "C_Decrypt",  "C_DeriveKey"};
  const bool saysWhatIsLacking =
      call.result == CKR_ATTRIBUTE_TYPE_INVALID || call.result == CKR_ATTRIBUTE_SENSITIVE;
  return isCryptokiFunction(call.name) && !saysWhatIsLacking &&
         std::find(std::begin(kAsking), std::end(kAsking), call.name) == std::end(kAsking);
}

}  // namespace

const CodeMeaning& meaningOf(std::string_view function, std::uint64_t code) noexcept {
  const auto* found = std::find_if(std::begin(kMeanings), std::end(kMeanings), [&](const CodeMeaning& row) {
    return row.code == code && (row.function.name().empty() || row.function.name() == function);
  });
  return found == std::end(kMeanings) ? kUnknown : *found;
}

std::string answerText(const FailedCall& cause) {
  return cause.name + (isCryptokiFunction(cause.name) ? " answered " : " ended with ") +
         cryptokiResultText(cause.result);
}

std::string reasonText(const FailedCall& cause) {
  const std::string_view reason = meaningOf(cause.name, cause.result).reason;
  return reason.empty() ? answerText(cause) : answerText(cause).append(", ").append(reason);
}

Failure failureBecauseOf(const FailedCall& cause, std::string what, FailureKind kindElse) {
  const CodeMeaning& meaning = meaningOf(cause.name, cause.result);
  const bool isKeyMissing = cause.result == CKR_KEY_HANDLE_INVALID &&
                            cause.name == operationName(BridgeOperation::pkcs11_getCorrespondingPrivateKey);
  return {meaning.kind.value_or(kindElse), std::move(what), reasonText(cause),  meaning.remedy,
          isOfDevice(cause.result),        cause.result,    asksOfNoKey(cause), isKeyMissing};
}

bool hasAnswer(const Failure& failure, std::initializer_list<std::uint64_t> codes) {
  return failure.result && std::find(codes.begin(), codes.end(), *failure.result) != codes.end();
}

}  // namespace mirel
