#include "HostToken.h"

#include "host/HostTest.h"
#include "platform/Certificate.h"

namespace mirel::test {
namespace {

using ::testing::Contains;
using ::testing::MatchesRegex;

// ---- Contents ----

class HostContents : public ::testing::Test {
 protected:
  [[nodiscard]] static MirelCTKTokenKeychainKey key(const Text& objectID, const Text& label = Text{},
                                                    TestKey type = TestKey::kP256) {
    MirelCTKTokenKeychainKey item;
    item.certificate = systemCertificateParser()->createWithData(Bytes{testCertificate({.key = type})});
    item.objectID = objectID;
    item.label = label;
    return item;
  }

  const std::shared_ptr<RecordingLog> log = std::make_shared<RecordingLog>();
  HostKeychainContents contents{log};
};

TEST_F(HostContents, AreFilledAsSoonAsSomebodyHasPublishedNothing) {
  EXPECT_FALSE(contents.filled());
  EXPECT_THAT(contents.items(), IsEmpty());
  contents.fillWithItems();
  EXPECT_TRUE(contents.filled());
  EXPECT_THAT(contents.items(), IsEmpty());
}

TEST_F(HostContents, AreReplacedInOneGo) {
  contents.append(key(Text{u"1"}));
  EXPECT_THAT(contents.items(), IsEmpty());
  contents.fillWithItems();
  contents.append(TKTokenKeychainCertificate{nullptr, Text{u"3"}, Text{}});
  contents.append(key(Text{u"2"}));
  EXPECT_THAT(contents.items(), SizeIs(1));
  contents.fillWithItems();
  const auto items = contents.items();
  ASSERT_EQ(items.size(), 2U);
  EXPECT_EQ(std::get<TKTokenKeychainCertificate>(items[0]).objectID, Text{u"3"});
  EXPECT_EQ(std::get<MirelCTKTokenKeychainKey>(items[1]).objectID, Text{u"2"});
  EXPECT_FALSE(contents.keyForObjectID(Text{u"1"}, nullptr));
}

TEST_F(HostContents, FindTheFirstKeyOfAName) {
  // A certificate with the same identifier is no key.
  contents.append(TKTokenKeychainCertificate{nullptr, Text{u"2"}, Text{}});
  contents.append(key(Text{u"1"}));
  contents.append(key(Text{u"2"}, Text{u"first"}));
  contents.append(key(Text{u"2"}, Text{u"second"}));
  contents.fillWithItems();
  std::optional<TKError> error;
  const auto found = contents.keyForObjectID(Text{u"2"}, &error);
  ASSERT_TRUE(found);
  EXPECT_EQ(found->label, Text{u"first"});
  EXPECT_EQ(error, std::nullopt);
}

TEST_F(HostContents, ReportAKeyThatThereIsNot) {
  contents.append(TKTokenKeychainCertificate{nullptr, Text{u"2"}, Text{}});
  contents.fillWithItems();
  std::optional<TKError> error;
  EXPECT_FALSE(contents.keyForObjectID(Text{u"2"}, &error));
  EXPECT_EQ(error, tkError(TKErrorCode::kObjectNotFound));
  EXPECT_FALSE(contents.keyForObjectID(Text{u"2"}, nullptr));
}

TEST_F(HostContents, TakeKeysOfKindsThatTheKeychainHasANameFor) {
  EXPECT_TRUE(contents.initKey(key(Text{u"1"}, Text{}, TestKey::kP256)));
  EXPECT_TRUE(contents.initKey(key(Text{u"1"}, Text{}, TestKey::kRsa2048)));
  log->allLines.clear();
  EXPECT_FALSE(contents.initKey(key(Text{u"1"}, Text{}, TestKey::kEd25519)));
  EXPECT_THAT(log->allLines, ElementsAre("default: CTK [MirelSCToken-15] +++START+++",
                                         "default: CTK [MirelSCToken-21] ---END---"));
}

// ---- Tokens and sessions ----

class HostTokenTest : public HostTest {
 protected:
  HostTokenTest() { leavesOpen({kCardSession}); }

  std::shared_ptr<HostToken> token = HostToken::createdForReader(services(), Text{u"Reader A 00"}, nullptr);
};

TEST_F(HostTokenTest, HasTheIdentifierAndTheItemsOfItsCard) {
  ASSERT_TRUE(token);
  EXPECT_TRUE(token->instanceID().toUtf8().starts_with("TESTCARD"));
  EXPECT_TRUE(token->contents().filled());
  EXPECT_TRUE(token->contents().keyForObjectID(Text{u"01"}, nullptr));
}

TEST_F(HostTokenTest, IsNullAndReportedWithoutACard) {
  script.setInitialised(false);
  std::optional<TKError> error;
  EXPECT_FALSE(HostToken::createdForReader(services(), Text{u"Reader Z"}, &error));
  EXPECT_EQ(error, tkError(TKErrorCode::kObjectNotFound));
  EXPECT_EQ(log->processLines.back(), "[MirelSCTokenDriver-15] token = (null)");
}

TEST_F(HostTokenTest, HasSessionsThatFindNoKeyWhenItHasGone) {
  const auto session = token->createSessionWithError(nullptr);
  EXPECT_TRUE(session->core()->sp());
  std::optional<TKError> error;
  EXPECT_TRUE(session->keyForObjectID(Text{u"01"}, &error));
  token.reset();
  EXPECT_FALSE(session->keyForObjectID(Text{u"01"}, &error));
  EXPECT_EQ(error, std::nullopt);
  EXPECT_FALSE(session->initWithToken());
  EXPECT_EQ(log->processLines.back(), "[MirelSCTokenSession-73] ERROR");
}

TEST_F(HostTokenTest, HasAConnectionOfItsOwnForEachSession) {
  const auto first = token->createSessionWithError(nullptr);
  const auto second = token->createSessionWithError(nullptr);
  EXPECT_NE(first->core(), second->core());
  HostSmartCard& card = first->smartCard();
  EXPECT_EQ(card.name(), Text{u"Reader A 00"});
  EXPECT_EQ(card.cla(), 0x00);
  EXPECT_FALSE(card.hasContext() || card.sensitive());
  card.setContext(false);
  EXPECT_TRUE(card.hasContext());
  EXPECT_FALSE(card.sensitive());
  card.setSensitive(true);
  EXPECT_TRUE(card.sensitive());
  card.dropContext();
  EXPECT_FALSE(card.hasContext());
  EXPECT_FALSE(second->smartCard().hasContext() || second->smartCard().sensitive());
}

TEST_F(HostTokenTest, DescribesItsObjectsInLinesByClassAndAddress) {
  const auto session = token->createSessionWithError(nullptr);
  EXPECT_THAT(token->description().toUtf8(), MatchesRegex("<MirelSCToken: 0x[0-9a-f]+>"));
  EXPECT_THAT(session->description().toUtf8(), MatchesRegex("<MirelSCTokenSession: 0x[0-9a-f]+>"));
  const auto shown = token->description().toUtf8();
  EXPECT_THAT(log->processLines,
              AllOf(Contains("[MirelSCTokenDriver-15] token = " + shown),
                    Contains("[MirelSCToken-148] token = " + shown),
                    Contains("[MirelSCToken-155] token session = " + session->description().toUtf8())));
  EXPECT_THAT(HostKeyAlgorithm{SecKeyAlgorithm::kSecKeyAlgorithmRSASignatureRaw}.description().toUtf8(),
              MatchesRegex("<TKTokenKeyAlgorithm: 0x[0-9a-f]+>"));
}

// ---- Requests ----

TEST_F(HostTokenTest, AsksForAPinOnlyForAConstraintThatAsksForOne) {
  const auto session = token->createSessionWithError(nullptr);
  EXPECT_TRUE(session->beginAuthForOperation(Text{u"PINAlways"}, nullptr));
  std::optional<TKError> error;
  EXPECT_FALSE(session->beginAuthForOperation(Text{u"Biometry"}, &error));
  ASSERT_TRUE(error);
  EXPECT_EQ(error->code, -8);
}

TEST_F(HostTokenTest, DropsThePinWhenItHasBeenTried) {
  const auto session = token->createSessionWithError(nullptr);
  const auto request = session->beginAuthForOperation(Text{u"PIN"}, nullptr);
  ASSERT_TRUE(request);
  EXPECT_FALSE(request->finishWithPIN(std::make_shared<const SecretText>(u"000000"), nullptr));
  EXPECT_FALSE(request->PIN());
  EXPECT_FALSE(session->smartCard().hasContext());
  EXPECT_TRUE(request->finishWithPIN(std::make_shared<const SecretText>(u"123456"), nullptr));
  EXPECT_FALSE(request->PIN());
  EXPECT_TRUE(session->smartCard().hasContext());
  leavesOpen({kCardSession, kCardSession + 2, kCardSession + 4});
}

TEST(HostAlgorithm, IsTheOneAskedForAlone) {
  for (const auto& [asked, askedName] : kSecKeyAlgorithms) {
    SCOPED_TRACE(askedName);
    const HostKeyAlgorithm request{asked};
    for (const auto& [other, otherName] : kSecKeyAlgorithms)
      EXPECT_EQ(request.isAlgorithm(other), askedName == otherName) << otherName;
  }
}

}  // namespace
}  // namespace mirel::test
