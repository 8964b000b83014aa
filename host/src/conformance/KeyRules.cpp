#include "conformance/KeyRules.h"

#include <algorithm>
#include <iterator>

#include "CodeMeaning.h"
#include "NotedPins.h"
#include "conformance/ObjectRules.h"
#include "doctor/KeyTrials.h"
#include "host/Display.h"
#include "host/KeyAbility.h"
#include "host/KeyChoice.h"
#include "host/KeyClient.h"

namespace mirel {
namespace {

using enum RuleID;

struct SigningRule {
  RuleID rule;
  SecKeyAlgorithm algorithm;
};

constexpr SigningRule kSignatures[] = {
    {kPssSha1, SecKeyAlgorithm::kSecKeyAlgorithmRSASignatureMessagePSSSHA1},
    {kPssSha256, SecKeyAlgorithm::kSecKeyAlgorithmRSASignatureMessagePSSSHA256},
    {kPssSha384, SecKeyAlgorithm::kSecKeyAlgorithmRSASignatureMessagePSSSHA384},
    {kPssSha512, SecKeyAlgorithm::kSecKeyAlgorithmRSASignatureMessagePSSSHA512},
    {kPkcs1, SecKeyAlgorithm::kSecKeyAlgorithmRSASignatureMessagePKCS1v15SHA256},
};

constexpr RuleID kAfterLogin[] = {kModulusReadable, kSigningPrivateKey, kRawSignature, kPssSha1,
                                  kPssSha256,       kPssSha384,         kPssSha512,    kPkcs1,
                                  kPrivateModulus,  kDecryption};

void skipAfterLogin(RuleResults& results, const std::string& reason) {
  for (const RuleID rule : kAfterLogin) results.skip(rule, reason);
}

/// Whether a session shows a user state.
struct UserState {
  bool before = false;  ///< the login: then it is not of ours
  bool after = false;
};

bool isOfOtherLogin(const Failure& failure) {
  return hasAnswer(failure,
                   {CKR_USER_ALREADY_LOGGED_IN, CKR_USER_ANOTHER_ALREADY_LOGGED_IN, CKR_USER_TOO_MANY_TYPES});
}

constexpr const char* kLoggedInBefore = "the module was logged in already, before the login of the test";

/// True when the keys can be tried. `pinWasGiven`: else none was sent.
bool testLogin(const Result<void>& accepted, bool pinWasGiven, const UserState& isUser,
               RuleResults& results) {
  if (accepted) {
    if (isUser.before) {
      results.unknown(
          kLogin, std::string{kLoggedInBefore} + ", so that C_Login answers CKR_OK says nothing of the PIN");
    } else {
      results.pass(kLogin, "the card accepts the PIN");
    }
    return true;
  }
  const Failure& failure = accepted.failure();
  const std::string text = failure.what + ": " + failure.why;
  if (isOfOtherLogin(failure) || !pinWasGiven) return results.unknown(kLogin, text), false;
  switch (failure.kind) {
    case FailureKind::kFileFailure:  // the one with the PIN
    case FailureKind::kPinHeldBack:
    case FailureKind::kCancelled:
    case FailureKind::kCardGone:
    case FailureKind::kAnotherCard:
    case FailureKind::kInternal: results.unknown(kLogin, text); break;
    default:
      if (isUser.after && !isUser.before) {
        results.pass(kLogin, "the module shows a user state");  // so the rule about the session is broken
      } else if (saysNothingOfModule(failure) || (isUser.before && !failure.result)) {
        results.unknown(kLogin, text);
      } else {
        results.fail(kLogin, text);
      }
  }
  return false;
}

/// Nothing where it could not be read; `outAnswer` tells why.
std::optional<CK_SESSION_INFO> sessionInfo(const P11Bridge& bridge, CK_SLOT_ID slotID,
                                           std::string& outAnswer) {
  CK_SESSION_HANDLE session = 0;
  if (const CK_RV rv = bridge.openInspection(slotID, session); rv != CKR_OK)
    return outAnswer = answerText({"C_OpenSession", rv}), std::nullopt;
  CK_SESSION_INFO info{};
  const CK_RV rv = bridge.inspectSession(session, info);
  bridge.closeInspection(session);
  if (rv != CKR_OK) return outAnswer = answerText({"C_GetSessionInfo", rv}), std::nullopt;
  return info;
}

bool isOfUser(const CK_SESSION_INFO& info) {
  return info.state == CKS_RO_USER_FUNCTIONS || info.state == CKS_RW_USER_FUNCTIONS;
}

/// True where the session shows a user state.
bool testSessionState(const P11Bridge& bridge, CK_SLOT_ID slotID, RuleResults& results) {
  std::string answer;
  const auto read = sessionInfo(bridge, slotID, answer);
  if (!read) return results.unknown(kSessionState, answer), false;
  const CK_SESSION_INFO& info = *read;
  const bool isUser = isOfUser(info);
  const bool isSerial = (info.flags & CKF_SERIAL_SESSION) != 0;
  const std::string text = "state " + std::to_string(info.state) + ", flags " + std::to_string(info.flags) +
                           ", ulDeviceError " + std::to_string(info.ulDeviceError);
  const bool isGood = isUser && isSerial && info.ulDeviceError == 0;
  results.set(kSessionState, isGood ? RuleVerdict::kPass : RuleVerdict::kFail, text);
  return isUser;
}

/// What the trials of one rule came to.
struct Trials {
  std::size_t numGood = 0;
  std::optional<std::string> broken;   ///< how the first key failed
  std::optional<std::string> unknown;  ///< why the first one could not be tried

  void add(const PublishedKey& key, const CardReport& report, const std::optional<Failure>& failure) {
    if (!failure) {
      ++numGood;
      return;
    }
    const bool isShared = sharesItsID(key, report);
    auto& text = isShared || saysNothing(*failure) ? unknown : broken;
    if (text) return;
    text = "key " + idText(key.objectID) + ": " + failure->why;
    if (isShared) text->append(", and another key has its ID");
  }

  /// Nothing where it could not be told.
  [[nodiscard]] std::optional<bool> works() const {
    if (numGood > 0) return true;
    return unknown ? std::nullopt : std::optional{false};
  }

  /// `thing`: what was tried.
  void tell(RuleID rule, RuleVerdict ifBroken, const std::string& ifNone, RuleResults& results,
            const std::string& thing = "key") const {
    if (broken) return results.set(rule, ifBroken, *broken);
    if (unknown) return results.unknown(rule, *unknown);
    if (numGood == 0) return results.skip(rule, ifNone);
    results.pass(rule, std::to_string(numGood) + " " + thing + (numGood == 1 ? "" : "s") + " tried");
  }
};

/// The keys without those that want the PIN for each use, unless there are no others: with the use of such a
/// key the login may end for all.
std::vector<PublishedKey> keysToTry(const InsertedCard& card, const CardReport& report,
                                    bool (*isOfKind)(const PublishedKey& key)) {
  std::vector<PublishedKey> keys = keysOf(card);
  std::erase_if(keys, [&](const PublishedKey& key) { return !isOfKind(key) || !certificateOf(card, key); });
  const auto wantsPin = [&](const PublishedKey& key) { return wantsPinForEachUse(key, report); };
  if (!std::all_of(keys.begin(), keys.end(), wantsPin)) std::erase_if(keys, wantsPin);
  return keys;
}

void testSignatures(KeyClient& client, const InsertedCard& card, const CardReport& report, PinSource& pins,
                    RuleResults& results, CardAbilities& outAbilities) {
  Trials raw;
  const auto keys = keysToTry(card, report, [](const PublishedKey& key) {
    return key.canSign && !reasonNeverTo(KeyOperation::kSign, key);
  });
  for (const SigningRule& rule : kSignatures) {
    Trials trials;
    bool isTooShort = false;
    for (const PublishedKey& key : keys) {
      if (key.keySizeInBits < leastKeySizeFor(rule.algorithm)) {
        isTooShort = true;
        continue;
      }
      trials.add(key, report, failureOfSigning(client, key, rule.algorithm, pins));
    }
    const bool isPkcs1 = rule.rule == kPkcs1;
    trials.tell(rule.rule, isPkcs1 ? RuleVerdict::kWarn : RuleVerdict::kFail,
                isTooShort ? "no key is long enough for the hash" : "no key of the card signs", results);
    if (isPkcs1) {
      outAbilities.signsPkcs1 = trials.works();
      continue;
    }
    if (rule.rule == kPssSha256) outAbilities.signsPss = trials.works();
    raw.numGood += trials.numGood;
    if (!raw.broken) raw.broken = trials.broken;
    if (!raw.unknown) raw.unknown = trials.unknown;
  }
  if (raw.numGood > 0) {  // the rules of the other hashes tell what is wrong with them
    raw.broken.reset();
    raw.unknown.reset();
  }
  raw.tell(kRawSignature, RuleVerdict::kFail, "no key of the card signs", results, "signature");
}

void testDecryption(KeyClient& client, const InsertedCard& card, const CardReport& report, PinSource& pins,
                    RuleResults& results, CardAbilities& outAbilities) {
  Trials trials;
  const auto keys = keysToTry(card, report, [](const PublishedKey& key) {
    return key.canDecrypt && !reasonNeverTo(KeyOperation::kDecrypt, key);
  });
  for (const PublishedKey& key : keys)
    trials.add(key, report, failureOfDecrypting(client, key, *certificateOf(card, key), pins));
  outAbilities.decrypts = trials.works();
  trials.tell(kDecryption, RuleVerdict::kFail, "no RSA key of the card decrypts", results);
}

/// The rules that the items of the keychain decide.
void testKeyKinds(const InsertedCard& card, RuleResults& results) {
  std::size_t numGood = 0;
  for (const PublishedKey& key : keysOf(card)) {
    if (!key.canDecrypt) continue;
    if (key.keyType != CertificateKeyType::kRSA)
      return results.fail(kDecryptingKey, "key " + idText(key.objectID) + " is an EC key");
    ++numGood;
  }
  if (card.incomplete) return results.unknown(kDecryptingKey, card.incomplete->why);
  if (numGood == 0) return results.skip(kDecryptingKey, "no key of the card decrypts");
  results.pass(kDecryptingKey, std::to_string(numGood) + (numGood == 1 ? " key" : " keys") + " looked at");
}

/// What was seen of objects through a session of its own may have been another card, or one without a login.
void takeBackWithoutCard(Host& host, const InsertedCard& card, RuleResults& results) {
  constexpr RuleID kRules[] = {kSessionState, kModulusReadable, kSigningPrivateKey, kPrivateModulus};
  const auto isBad = [&](RuleID rule) { return results.isBad(rule); };
  if (std::none_of(std::begin(kRules), std::end(kRules), isBad)) return;
  const auto there = host.lookFor(card);
  if (there) return;
  for (const RuleID rule : kRules) {
    if (isBad(rule)) results.unknown(rule, there.failure().what + ": " + there.failure().why);
  }
}

}  // namespace

bool testKeys(Host& host, const P11Bridge& bridge, const InsertedCard& card, PinSource* pins,
              const std::string& whyNotAsWanted, CardReport& ioReport, RuleResults& results,
              CardAbilities& outAbilities) {
  testKeyKinds(card, results);
  results.skip(kTriesLeft, "no wrong PIN is sent on purpose: it takes a try of the card");
  if (!pins) {
    if (whyNotAsWanted.empty()) {
      results.skip(kLogin, "no login was asked for");
    } else {
      results.unknown(kLogin, whyNotAsWanted);
    }
    results.skip(kSessionState, "it needs a login");
    skipAfterLogin(results, "it needs a login");
    return false;
  }
  const auto client = host.newClient(card);
  if (!client) {
    results.unknown(kLogin, client.failure().what + ": " + client.failure().why);
    results.skip(kSessionState, "there is no login");
    skipAfterLogin(results, "there is no login");
    return false;
  }
  UserState isUser;
  std::string unread;  // then the login is judged by what comes after it
  const auto before = sessionInfo(bridge, card.reader.slotID, unread);
  isUser.before = before && isOfUser(*before);
  if (isUser.before) results.unknown(kPublicObjects, kLoggedInBefore);
  NotedPins noted{*pins};
  const auto accepted = (*client)->logIn(noted);
  isUser.after = testSessionState(bridge, card.reader.slotID, results);
  const bool isLoggedIn = testLogin(accepted, noted.hasGiven(), isUser, results);
  // The state of another login is no result of this one.
  const bool isOthers = isUser.before || (!accepted && isOfOtherLogin(accepted.failure()));
  if (!isLoggedIn) {
    const bool isBroken = isUser.after && !isOthers && results.isBad(kSessionState);
    const char* reason = isOthers ? kLoggedInBefore : "there is no login";
    if (!isBroken) results.skip(kSessionState, reason);
    skipAfterLogin(results, reason);
    return false;
  }
  if (isOthers) results.unknown(kSessionState, kLoggedInBefore);
  ioReport = host.examine(card, true);
  testKeyObjects(bridge, card, results);
  takeBackWithoutCard(host, card, results);
  testSignatures(**client, card, ioReport, *pins, results, outAbilities);
  testDecryption(**client, card, ioReport, *pins, results, outAbilities);
  return true;
}

}  // namespace mirel
