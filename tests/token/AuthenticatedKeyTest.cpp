#include "platform/Certificate.h"
#include "token/ClientSessionTest.h"

namespace mirel::test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

const Text kOnceKey{u"02"};
const Bytes kData{std::vector<std::uint8_t>{1, 2, 3}};
constexpr std::uint8_t kTag = 0x82;

/// The token publishes a key that asks for the PIN each time and one that does not.
class AuthenticatedKey : public ClientSessionTest {
 protected:
  AuthenticatedKey() {
    publish({always, once});
    forget();
  }

  /// The session is in that state, on a connection with that mark.
  void isIn(std::int64_t state, std::optional<bool> context) {
    session->setAuthState(state);
    base->card->setContext(context);
    log->allLines.clear();
  }
  void isAuthenticated() { isIn(1, true); }

  const std::shared_ptr<MirelCTKTokenKeychainKey> always = newKey(kKey, true);
  const std::shared_ptr<MirelCTKTokenKeychainKey> once = newKey(kOnceKey, false);
};

TEST_F(AuthenticatedKey, NeedsAStateAndAMarkAndNoUsedKeyThatAsksEachTime) {
  const struct {
    std::int64_t state;
    std::optional<bool> context;
    bool givesAlways;
    bool givesOnce;
  } rows[] = {
      // The mark may be any object, "no" included.
      {0, std::nullopt, false, false},
      {0, true, false, false},
      {0, false, false, false},
      {1, std::nullopt, false, false},
      {1, true, true, true},
      {1, false, true, true},
      {2, std::nullopt, false, false},
      {2, true, false, true},
      {2, false, false, true},
      // States that nobody knows.
      {3, true, true, true},
      {-1, true, true, true},
      {0x100000000, true, true, true},
      {3, std::nullopt, false, false},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(std::to_string(row.state) + (row.context ? (*row.context ? " yes" : " no") : " none"));
    isIn(row.state, row.context);
    std::optional<TKError> alwaysError;
    std::optional<TKError> onceError;
    EXPECT_EQ(session->authenticatedKeyForObjectID(kKey, &alwaysError), row.givesAlways ? always : nullptr);
    EXPECT_EQ(session->authenticatedKeyForObjectID(kOnceKey, &onceError), row.givesOnce ? once : nullptr);
    const std::optional<TKError> needed = tokenError(-9);
    EXPECT_EQ(alwaysError, row.givesAlways ? std::nullopt : needed);
    EXPECT_EQ(onceError, row.givesOnce ? std::nullopt : needed);
    EXPECT_EQ(session->authState(), row.state);
    EXPECT_EQ(base->card->context(), row.context);
  }
}

TEST_F(AuthenticatedKey, LogsItsWay) {
  isAuthenticated();
  EXPECT_TRUE(session->authenticatedKeyForObjectID(kKey, nullptr));
  EXPECT_THAT(log->allLines, ElementsAre(kAuthenticatedStart, kAuthenticatedEnd));
}

TEST_F(AuthenticatedKey, LogsThatThePinIsNeeded) {
  std::optional<TKError> error;
  EXPECT_FALSE(session->authenticatedKeyForObjectID(kKey, &error));
  EXPECT_THAT(log->allLines, ElementsAre(kAuthenticatedStart, kNeeded));
}

TEST_F(AuthenticatedKey, SaysNothingOfANeededPinWithoutAnErrorPointer) {
  EXPECT_FALSE(session->authenticatedKeyForObjectID(kKey, nullptr));
  EXPECT_THAT(log->allLines, ElementsAre(kAuthenticatedStart));
}

TEST_F(AuthenticatedKey, ReplacesAnEarlierError) {
  std::optional<TKError> error = kEarlierError;
  EXPECT_FALSE(session->authenticatedKeyForObjectID(kKey, &error));
  EXPECT_EQ(error, tokenError(-9));
}

TEST_F(AuthenticatedKey, LeavesErrorsAloneWhenAllIsWell) {
  isAuthenticated();
  std::optional<TKError> error = kEarlierError;
  EXPECT_TRUE(session->authenticatedKeyForObjectID(kKey, &error));
  EXPECT_EQ(error, kEarlierError);
}

TEST_F(AuthenticatedKey, ReportsAnUnknownKeyAsThePlatformDoes) {
  for (const std::int64_t state : {0, 1, 2}) {
    SCOPED_TRACE(state);
    isIn(state, true);
    std::optional<TKError> error;
    EXPECT_FALSE(session->authenticatedKeyForObjectID(kNoKey, &error));
    EXPECT_EQ(error, tokenError(-6));
    EXPECT_THAT(log->allLines, ElementsAre(kAuthenticatedStart, kKeyIsNil));
  }
}

TEST_F(AuthenticatedKey, LogsAnUnknownKeyWithoutAnErrorPointerToo) {
  EXPECT_FALSE(session->authenticatedKeyForObjectID(kNoKey, nullptr));
  EXPECT_THAT(log->allLines, ElementsAre(kAuthenticatedStart, kKeyIsNil));
}

TEST_F(AuthenticatedKey, KnowsNoKeyOfATokenWithoutContents) {
  isAuthenticated();
  kit->script->withoutContents = true;
  std::optional<TKError> error;
  EXPECT_FALSE(session->authenticatedKeyForObjectID(kKey, &error));
  EXPECT_EQ(error, std::nullopt);
  EXPECT_THAT(log->allLines, ElementsAre(kAuthenticatedStart, kKeyIsNil));
}

TEST_F(AuthenticatedKey, NeedsAConnectionToTheCard) {
  isAuthenticated();
  base->card = nullptr;
  std::optional<TKError> error;
  EXPECT_FALSE(session->authenticatedKeyForObjectID(kKey, &error));
  EXPECT_EQ(error, tokenError(-9));
}

TEST_F(AuthenticatedKey, TakesAKeyThatIsNotThisSystemsOwnAsOneThatAsksOnce) {
  const auto foreign = kit->allocKeychainKey();
  ASSERT_TRUE(foreign->initWithCertificate(
      systemCertificateParser()->createWithData(Bytes{testCertificate({})}), Text{u"03"}));
  publish({foreign});
  isIn(2, true);
  EXPECT_EQ(session->authenticatedKeyForObjectID(Text{u"03"}, nullptr), foreign);
}

TEST_F(AuthenticatedKey, LeavesTheCardAlone) {
  isAuthenticated();
  EXPECT_TRUE(session->authenticatedKeyForObjectID(kKey, nullptr));
  EXPECT_FALSE(session->authenticatedKeyForObjectID(kNoKey, nullptr));
  EXPECT_THAT(script.callTexts(), IsEmpty());
}

class GeneralAuthenticate : public AuthenticatedKey {
 protected:
  [[nodiscard]] std::shared_ptr<TKTokenKeychainKey> authenticate(const Text& keyObjectID,
                                                                 TKErrorPointer outError = nullptr) {
    return session->generalAuthenticateWithData(kData, kTag, keyObjectID, outError);
  }
};

TEST_F(GeneralAuthenticate, GivesTheKeyAndLogsItsWay) {
  isAuthenticated();
  std::optional<TKError> error = kEarlierError;
  EXPECT_EQ(authenticate(kKey, &error), always);
  EXPECT_EQ(error, kEarlierError);
  EXPECT_THAT(log->allLines, ElementsAre(kGeneralStart, kAuthenticatedStart, kAuthenticatedEnd, kGeneralEnd));
}

TEST_F(GeneralAuthenticate, AnswersAsTheSearchForTheKeyInEveryState) {
  for (const std::int64_t state : {0, 1, 2}) {
    for (const auto context : {std::optional<bool>{}, std::optional{true}, std::optional{false}}) {
      for (const Text& id : {kKey, kOnceKey, kNoKey}) {
        SCOPED_TRACE(std::to_string(state) + " " + id.toUtf8());
        isIn(state, context);
        std::optional<TKError> expectedError;
        std::optional<TKError> error;
        const auto expected = session->authenticatedKeyForObjectID(id, &expectedError);
        EXPECT_EQ(authenticate(id, &error), expected);
        EXPECT_EQ(error, expectedError);
      }
    }
  }
}

TEST_F(GeneralAuthenticate, LogsTheKeyThatNeedsThePin) {
  std::optional<TKError> error;
  EXPECT_FALSE(authenticate(kKey, &error));
  EXPECT_EQ(error, tokenError(-9));
  EXPECT_THAT(log->allLines, ElementsAre(kGeneralStart, kAuthenticatedStart, kNeeded, kFailed));
}

TEST_F(GeneralAuthenticate, LogsTheKeyThatNeedsThePinWithoutAnErrorPointer) {
  EXPECT_FALSE(authenticate(kKey));
  EXPECT_THAT(log->allLines, ElementsAre(kGeneralStart, kAuthenticatedStart, kFailed));
}

TEST_F(GeneralAuthenticate, LogsAnUnknownKey) {
  isAuthenticated();
  std::optional<TKError> error;
  EXPECT_FALSE(authenticate(kNoKey, &error));
  EXPECT_EQ(error, tokenError(-6));
  EXPECT_THAT(log->allLines, ElementsAre(kGeneralStart, kAuthenticatedStart, kKeyIsNil, kFailedNoKey));
}

TEST_F(GeneralAuthenticate, LogsANullKeyIdentifier) {
  EXPECT_FALSE(authenticate(Text{}));
  EXPECT_EQ(log->allLines.back(), "process: [MirelSCTokenSession-187] keyObjectID = (null)");
}

TEST_F(GeneralAuthenticate, TakesTheCharactersOfAKeyIdentifierForNoFormat) {
  EXPECT_FALSE(authenticate(Text{u"%n%s%@"}));
  EXPECT_EQ(log->allLines.back(), "process: [MirelSCTokenSession-187] keyObjectID = %n%s%@");
}

TEST_F(GeneralAuthenticate, DoesNotLookAtDataAndTag) {
  isAuthenticated();
  EXPECT_EQ(session->generalAuthenticateWithData(Bytes{}, 0, kKey, nullptr), always);
  EXPECT_EQ(session->generalAuthenticateWithData(Bytes{std::vector<std::uint8_t>(5000)}, 255, kKey, nullptr),
            always);
}

}  // namespace
}  // namespace mirel::test
