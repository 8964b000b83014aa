/// What an examination says of its login, and takes back after it.

#include <algorithm>
#include <utility>

#include "host/DoctorTrialsTest.h"

namespace mirel::test {
namespace {

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::Not;

TEST_F(DoctorTrials, TakeBackWhatTheLoginRefutes) {
  script.addObject(certificate(bytesOf("05"), bytesOf("Pair"), key.certificate(kForSigning)));
  script.addObject(
      rsaPublicKey(bytesOf("05"), bytesOf("Pair"), key.modulus()).with(CKA_PRIVATE, boolValue(true)));
  script.card().info.flags &= ~CKF_USER_PIN_INITIALIZED;
  const Diagnosis found = diagnosis();
  EXPECT_THAT(codesOfCheck(found, "objects"), Contains("MT-C07"));
  EXPECT_EQ(checkIn(found, "objects").severity, Severity::kWarning);
  EXPECT_EQ(findingIn(found, FindingID::kPublicKeyPrivate).subject, "public key 3035 \"Pair\"");
  EXPECT_THAT(codesOf(found), ::testing::AllOf(Not(Contains("MT-C06")), Not(Contains("MT-P06"))));
  EXPECT_EQ(checkIn(found, "PIN").severity, Severity::kOk);
}

TEST_F(DoctorTrials, TakeBackTheLastTryWhereTheLoginHasGivenAllBack) {
  script.card().info.flags |= CKF_USER_PIN_COUNT_LOW;
  EXPECT_EQ(findingIn(diagnosis(), FindingID::kPinTriesFewer).evidence,
            "the flags have USER_PIN_COUNT_LOW, also after the login; the module may not have asked the card "
            "again");
  startAnew();
  script.card().loggedIn = false;
  script.hook<&CK_FUNCTION_LIST::C_Login>([this](auto real, auto session, auto user, auto* pin, auto size) {
    script.card().info.flags &= ~CKF_USER_PIN_COUNT_LOW;
    return real(session, user, pin, size);
  });
  GivenPins given{{u"123456"}};
  const Diagnosis found = diagnosisWith(given);
  // How many tries were left has no meaning then, and is no news of the private keys either.
  EXPECT_THAT(codesOf(found), ::testing::AllOf(Not(Contains("MT-P03")), Not(Contains("MT-P07"))));
  EXPECT_EQ(checkIn(found, "PIN").severity, Severity::kOk);
}

TEST_F(DoctorTrials, TakeNothingBackWhereTheSecondLookFails) {
  script.addObject(certificate(bytesOf("05"), bytesOf("Pair"), key.certificate(kForSigning)));
  script.hook<&CK_FUNCTION_LIST::C_FindObjectsInit>(
      [this](auto real, auto session, auto* filter, auto count) {
        return script.card().loggedIn ? CKR_DEVICE_ERROR : real(session, filter, count);
      });
  EXPECT_THAT(codesOfCheck(diagnosis(), "objects"), Contains("MT-C06"));
}

TEST_F(DoctorTrials, EndWithALoginThatFails) {
  const struct {
    const char16_t* pin;
    CK_RV answer;
    const char* code;
  } rows[] = {{u"999999", CKR_PIN_INCORRECT, "MT-P08"},
              {u"123456", CKR_PIN_LOCKED, "MT-P01"},
              {u"123456", CKR_PIN_EXPIRED, "MT-P10"},
              {u"123456", CKR_USER_PIN_NOT_INITIALIZED, "MT-P06"},
              {u"123456", CKR_TOKEN_NOT_PRESENT, "MT-T04"},
              {u"123456", CKR_DEVICE_ERROR, "MT-P11"},
              {u"123456", CKR_USER_ALREADY_LOGGED_IN, "MT-P11"},
              {u"123456789", CKR_OK, "MT-P05"}};
  for (const auto& [pin, answer, code] : rows) {
    SCOPED_TRACE(code);
    startAnew();
    GivenPins given{{pin}};
    given.again = false;
    if (answer != CKR_OK) script.failCallOf("C_Login", 0, answer);
    const Diagnosis found = diagnosisWith(given);
    EXPECT_THAT(codesOfCheck(found, "login"), ElementsAre(code));
    EXPECT_EQ(checkIn(found, "signatures").severity, Severity::kSkipped);
    EXPECT_EQ(script.countOf("C_Sign"), 0U);
  }
}

TEST_F(DoctorTrials, TellOnceOfAPinThatTheFlagsHaveToldOf) {
  const struct {
    const char* name;
    std::function<void(Card&)> make;
    std::optional<Failure> ofSource;
    CK_RV answer;
    const char* code;
  } rows[] = {
      {"locked", [](Card& card) { card.triesLeft = 0; }, {}, CKR_PIN_LOCKED, "MT-P01"},
      {"locked, and held back", [](Card& card) { card.triesLeft = 0; },
       Failure{FailureKind::kPinHeldBack, "the PIN was not sent to the card", "the PIN is locked", {}},
       CKR_OK, "MT-P01"},
      {"too long", [](Card& card) { card.info.ulMinPinLen = 9; },
       Failure{FailureKind::kPinCannotBeEntered, "the PIN cannot be entered", "it has 9 characters", {}},
       CKR_OK, "MT-P05"},
      {"not set",
       [](Card& card) { card.info.flags &= ~CKF_USER_PIN_INITIALIZED; },
       {},
       CKR_USER_PIN_NOT_INITIALIZED,
       "MT-P06"},
      {"to be changed",
       [](Card& card) { card.info.flags |= CKF_USER_PIN_TO_BE_CHANGED; },
       {},
       CKR_PIN_EXPIRED,
       "MT-P10"},
  };
  for (const auto& [name, make, ofSource, answer, code] : rows) {
    SCOPED_TRACE(name);
    script.reset();
    startAnew();
    make(script.card());
    GivenPins given{{u"123456"}};
    given.again = false;
    given.failure = ofSource;
    if (answer != CKR_OK) script.failCallOf("C_Login", 0, answer);
    const Diagnosis found = diagnosisWith(given);
    EXPECT_THAT(codesOfCheck(found, "login"), ElementsAre(code));
    EXPECT_EQ(checkIn(found, "login").severity, Severity::kFailure);
    const auto codes = codesOf(found);
    EXPECT_EQ(std::count(codes.begin(), codes.end(), code), 1);
    EXPECT_THAT(codes, Not(Contains("MT-P09")));
    EXPECT_EQ(findingIn(found, findEntry(code)->id).severity, Severity::kFailure);
  }
}

TEST_F(DoctorTrials, TellOnceThatTheLastTryIsLeftToTheUser) {
  script.card().info.flags |= CKF_USER_PIN_FINAL_TRY;
  GivenPins given;
  given.failure = Failure{
      FailureKind::kPinHeldBack, "the PIN was not sent to the card", "one more wrong PIN locks the card", {}};
  const Diagnosis found = diagnosisWith(given);
  EXPECT_THAT(codesOfCheck(found, "login"), ElementsAre("MT-P02"));
  EXPECT_EQ(checkIn(found, "login").severity, Severity::kWarning);
  const auto codes = codesOf(found);
  EXPECT_EQ(std::count(codes.begin(), codes.end(), "MT-P02"), 1);
  EXPECT_THAT(codes, Not(Contains("MT-P09")));
}

TEST_F(DoctorTrials, SayOfALoginForWhichNoPinWasSentThatItWasNotMade) {
  const Failure unread{FailureKind::kCardRefuses,
                       "the PIN was not sent to the card",
                       "whether it could lock the card is not known, because C_GetTokenInfo failed",
                       {}};
  const struct {
    const char* name;
    std::function<void()> make;
  } rows[] = {{"the source", [this, &unread] { pins.failure = unread; }},
              {"the look before it", [this] {
                 pins.failure.reset();
                 const std::size_t before = script.countOf("C_GetTokenInfo");
                 startAnew();
                 script.failCallOf("C_GetTokenInfo", before - 1, CKR_GENERAL_ERROR);
               }}};
  for (const auto& [name, make] : rows) {
    SCOPED_TRACE(name);
    make();
    const Diagnosis found = diagnosis();
    EXPECT_THAT(codesOfCheck(found, "login"), ElementsAre("MT-P09"));
    EXPECT_EQ(checkIn(found, "login").severity, Severity::kFailure);
    EXPECT_EQ(checkIn(found, "signatures").evidence, "there is no login");
    EXPECT_EQ(script.countOf("C_Login"), 0U);
  }
}

TEST_F(DoctorTrials, AreMadeWhereTheModuleWasLoggedInBefore) {
  script.card().loggedIn = true;
  script.card().info.flags |= CKF_USER_PIN_COUNT_LOW;
  const Diagnosis found = diagnosis();
  EXPECT_EQ(checkIn(found, "login").severity, Severity::kWarning);
  EXPECT_THAT(codesOfCheck(found, "login"), ElementsAre("MT-P09"));
  EXPECT_THAT(findingIn(found, FindingID::kLoginNotMade).evidence,
              ::testing::StartsWith("the PIN was not checked: "));
  EXPECT_THAT(checkIn(found, "signatures").evidence, HasSubstr("key 3031 \"Signer\" signs RSA-PSS"));
  EXPECT_EQ(checkIn(found, "decryption").evidence, "key 3032 \"Vault\" decrypts PKCS #1 v1.5");
  EXPECT_THAT(codesOf(found), ::testing::AllOf(Not(Contains("MT-P11")), Contains("MT-P03")));
}

TEST_F(DoctorTrials, BlameNoKeyForTheEndOfALoginOfSomebodyElse) {
  const struct {
    const char* function;
    std::size_t call;
    const char* check;
    const char* evidence;
  } rows[] = {
      {"C_Sign", 0, "signatures", "key 3031 \"Signer\" could not be tried"},
      {"C_Sign", 1, "signatures", "key 3031 \"Signer\" signs RSA-PSS, and could not be tried further"},
      {"C_Decrypt", 0, "decryption", "key 3032 \"Vault\" could not be tried"},
  };
  for (const auto& [function, call, check, evidence] : rows) {
    SCOPED_TRACE(std::string{function} + " " + std::to_string(call));
    script.reset();
    startAnew();
    script.card().loggedIn = true;
    GivenPins given{{u"123456"}};
    script.failCallOf(function, call, CKR_USER_NOT_LOGGED_IN, Times::kFromThenOn);
    const Diagnosis found = diagnosisWith(given);
    EXPECT_THAT(checkIn(found, check).evidence, HasSubstr(evidence));
    EXPECT_THAT(codesOfCheck(found, check), ElementsAre("MT-T05"));
    EXPECT_THAT(codesOf(found), Not(Contains("MT-K04")));
  }
}

TEST_F(DoctorTrials, AreNotMadeWhereThePinCouldGoToAnotherCard) {
  (void)script.addSlot("Reader B", emptyCard("B", "2"));
  const Diagnosis found = diagnosis();
  EXPECT_THAT(checkIn(found, "login").evidence, HasSubstr("several cards"));
  EXPECT_THAT(codesOfCheck(found, "login"), ElementsAre("MT-P09"));
  EXPECT_EQ(checkIn(found, "login").severity, Severity::kWarning);
  EXPECT_EQ(pins.timesAsked(), 0U);
}

TEST_F(DoctorTrials, AreNotMadeWhereTheCardHasLeftSinceItWasFound) {
  const struct {
    const char* name;
    void (*leave)(Script& script);
    const char* seen;
  } rows[] = {
      {"no card", [](Script& module) { module.pullCard(); },
       "the reader \"Reader A 00\" holds no card: the module finds no token in it"},
      {"another card",
       [](Script& module) {
         Card other = module.card();
         setField(other.info.label, "OTHER");
         module.pullCard();
         module.insertCard(other);
       },
       "\"OTHER\" with serial number \"1234567890ABCDEF\" is there"},
      {"the card of a reader with a longer name",
       [](Script& module) {
         (void)module.addSlot("Reader A 00 and more", module.card());
         module.pullCard();
       },
       "the reader \"Reader A 00\" holds no card"},
      {"no reader, but one with a longer name",
       [](Script& module) {
         (void)module.addSlot("Reader A 00 and more", module.card());
         module.pullCard();
         module.slots().erase(kSlot);
       },
       "there is no reader \"Reader A 00\""},
  };
  for (const auto& [name, leave, seen] : rows) {
    SCOPED_TRACE(name);
    script.reset();
    startAnew();
    GivenPins given{{u"123456"}};
    bool wasFound = false;
    bool hasLeft = false;
    script.hook<&CK_FUNCTION_LIST::C_GetTokenInfo>([&](auto real, auto slot, auto* info) {
      wasFound = true;
      return real(slot, info);
    });
    script.hook<&CK_FUNCTION_LIST::C_GetSlotList>(
        [&, run = leave](auto real, auto present, auto* list, auto* count) {
          if (wasFound && !std::exchange(hasLeft, true)) run(script);
          return real(present, list, count);
        });
    const Diagnosis found = diagnosisWith(given);
    EXPECT_EQ(given.timesAsked(), 0U);
    EXPECT_EQ(script.countOf("C_Login"), 0U);
    EXPECT_THAT(codesOfCheck(found, "card"), Contains("MT-T04"));
    EXPECT_THAT(codesOf(found), Not(Contains("MT-T01")));
    EXPECT_THAT(findingIn(found, FindingID::kCardWentAway).evidence, HasSubstr(seen));
    EXPECT_EQ(checkIn(found, "card").severity, Severity::kFailure);
  }
}

TEST_F(DoctorTrials, AdviseNoOtherPinWhereItIsEnteredAtTheReader) {
  script.card().info.flags |= CKF_PROTECTED_AUTHENTICATION_PATH;
  GivenPins given;
  given.failure = Failure{FailureKind::kPinCannotBeEntered,
                          "the PIN of this card cannot be entered here",
                          "the card takes it from the keys of the reader",
                          {}};
  const Diagnosis found = diagnosisWith(given);
  EXPECT_THAT(codesOfCheck(found, "login"), ElementsAre("MT-P04"));
  const auto all = codesOf(found);
  EXPECT_EQ(std::count(all.begin(), all.end(), "MT-P04"), 1);
  EXPECT_THAT(all, Not(Contains("MT-P05")));
}

TEST_F(DoctorTrials, WarnWhereNoPinWasGiven) {
  for (const FailureKind kind :
       {FailureKind::kCancelled, FailureKind::kPinHeldBack, FailureKind::kFileFailure}) {
    startAnew();
    padInTheModule();
    GivenPins given;
    given.failure = Failure{kind, "no PIN was given", "there is no terminal to ask at", {}};
    const Diagnosis found = diagnosisWith(given);
    EXPECT_EQ(findingIn(found, FindingID::kLoginNotMade).evidence,
              "no PIN was given: there is no terminal to ask at");
    EXPECT_EQ(checkIn(found, "login").severity, Severity::kWarning);
    EXPECT_EQ(checkIn(found, "signatures").severity, Severity::kSkipped);
  }
}

}  // namespace
}  // namespace mirel::test
