#include "token/MirelSCTokenDriver.h"
#include "token/TokenTest.h"

namespace mirel::test {
namespace {

using ::testing::ElementsAre;

/// What the default card is called: the 96 bytes from label to serial number with the first two bytes of
/// the flags (0x40D), then the serial number and the same two bytes again.
const char16_t* const kInstanceID =
    u"TESTCARD                        "
    u"Scripted cards                  "
    u"Script 1        "
    u"1234567890ABCDEF"
    u"\x0D\x04"
    u"1234567890ABCDEF"
    u"\x0D\x04";

class CreateToken : public TokenTest {};

TEST_F(CreateToken, PublishesACertificateItemAndItsKeyItem) {
  const unsigned kSignatureAndNonRepudiation = 0x03;
  script.object(kPublicKey) = rsaPublicKey(bytesOf("0A1B"), bytesOf("Signing"), patternValue(256, 1));
  script.object(kCertificate) =
      certificate(bytesOf("0A1B"), bytesOf("Signing"),
                  testCertificate({.key = TestKey::kRsa2048, .keyUsage = kSignatureAndNonRepudiation}));
  const auto token = insert();
  ASSERT_TRUE(token);
  EXPECT_THAT(itemTexts(*token),
              ElementsAre("certificate cert_Signing_0A1B, label 0A1B",
                          "key 0A1B, label 0A1B, certificate cert_Signing_0A1B, can sign, for login, "
                          "PIN always, {2: PINAlways}"));
  leavesOpen({kCardSession});
}

TEST_F(CreateToken, TakesKeyTypeAndSizeFromTheCertificate) {
  setCertificate({.key = TestKey::kRsa2048});
  const auto token = insert();
  ASSERT_TRUE(token);
  const auto items = token->keychainContents()->items();
  ASSERT_EQ(items.size(), 2U);
  const auto key = std::dynamic_pointer_cast<TKTokenKeychainKey>(items[1]);
  ASSERT_TRUE(key);
  EXPECT_EQ(key->keyType(), CertificateKeyType::kRSA);
  EXPECT_EQ(key->keySizeInBits(), 2048);
  leavesOpen({kCardSession});
}

TEST_F(CreateToken, LogsAGoodInsertionStepByStep) {
  const auto token = insert();
  ASSERT_TRUE(token);
  EXPECT_THAT(log->allLines,
              ElementsAre("default: CTK [MirelSCTokenDriver-13] +++Start+++",  //
                          "default: CTK [MirelSCToken-31] +++Start+++",        //
                          moduleLine(),                                        //
                          "process: [MirelSCToken-52] instanceID = " + Text{kInstanceID}.toUtf8(),
                          "default: CTK [MirelSCToken-66] certs count = 1",  //
                          "default: CTK [MirelSCToken-15] +++START+++",      //
                          "default: CTK [MirelSCToken-21] ---END---",        //
                          "default: CTK [MirelSCToken-143] ---END---",       //
                          "process: [MirelSCTokenDriver-15] token = " + shown("MirelSCToken", token.get()),
                          "default: CTK [MirelSCTokenDriver-16] ---END---"));
  leavesOpen({kCardSession});
}

TEST_F(CreateToken, LogsAMissingTokenAsNull) {
  takeModuleAway();
  EXPECT_FALSE(insert());
  EXPECT_THAT(log->allLines,
              ElementsAre("default: CTK [MirelSCTokenDriver-13] +++Start+++",
                          "default: CTK [MirelSCToken-31] +++Start+++",  //
                          moduleLine(),
                          "error: [MirelSCToken-39] CryptTKitSProvider initWithMirelCTKFramwork fail!!!",
                          "process: [MirelSCTokenDriver-15] token = (null)",
                          "default: CTK [MirelSCTokenDriver-16] ---END---"));
}

TEST_F(CreateToken, HandsEverythingOnToTheBaseInitialiser) {
  const auto card = std::make_shared<FakeSmartCard>(Text{kReader});
  const Bytes AID{{0xA0, 0x00, 0x01}};
  MirelSCTokenDriver driver{services()};
  const auto token = driver.createTokenForSmartCard(systemDriver, card, AID, nullptr);
  ASSERT_TRUE(token);
  const auto base = kit->lastToken();
  ASSERT_TRUE(base);
  ASSERT_EQ(base->initialisations.size(), 1U);
  const auto& given = base->initialisations.front();
  EXPECT_EQ(given.smartCard, card);
  EXPECT_EQ(given.AID, AID);
  EXPECT_EQ(given.instanceID, Text{kInstanceID});
  EXPECT_EQ(given.driver, systemDriver);
  leavesOpen({kCardSession});
}

TEST_F(CreateToken, HandsAMissingAidOnAsMissing) {
  const auto token = insert();
  ASSERT_TRUE(token);
  ASSERT_EQ(kit->lastToken()->initialisations.size(), 1U);
  EXPECT_TRUE(kit->lastToken()->initialisations.front().AID.isNull());
  leavesOpen({kCardSession});
}

TEST_F(CreateToken, HandsTheErrorPointerOn) {
  script.pullCard();
  std::optional<TKError> error;
  EXPECT_FALSE(insert(&error));
  ASSERT_TRUE(error);
  EXPECT_EQ(error->code, -6);
}

TEST_F(CreateToken, MakesATokenForEachCard) {
  const auto first = insert();
  const auto second = insert();
  ASSERT_TRUE(first);
  ASSERT_TRUE(second);
  EXPECT_NE(first, second);
  EXPECT_NE(std::dynamic_pointer_cast<MirelSCToken>(first)->sp(),
            std::dynamic_pointer_cast<MirelSCToken>(second)->sp());
  EXPECT_EQ(itemTexts(*first), itemTexts(*second));
  leavesOpen({kCardSession, kCardSession + 3});
}

TEST_F(CreateToken, UsesTheCardInTheNamedReader) {
  const CK_SLOT_ID other = script.addSlot("Reader B 01", emptyCard("OTHER", "42"));
  script.addObject(ecPublicKey(bytesOf("B2"), bytesOf("Theirs"), p256Params(), p256Point(3)), other);
  script.addObject(certificate(bytesOf("B2"), bytesOf("Theirs"), testCertificate({})), other);
  const auto token = insert(nullptr, Text{u"Reader B"});
  ASSERT_TRUE(token);
  EXPECT_EQ(kit->lastToken()->initialisations.front().instanceID.units().substr(0, 6), u"OTHER ");
  EXPECT_THAT(itemTexts(*token), ElementsAre("certificate cert_Theirs_B2, label B2",
                                             "key B2, label B2, certificate cert_Theirs_B2, PIN always, {}"));
  leavesOpen({kCardSession});
}

TEST_F(CreateToken, EndsAnIdentifierAtAZeroByte) {
  Card& card = script.card();
  card.info.label[8] = 0;
  card.info.serialNumber[4] = 0;
  const auto token = insert();
  ASSERT_TRUE(token);
  EXPECT_EQ(kit->lastToken()->initialisations.front().instanceID, Text{u"TESTCARD1234"});
  leavesOpen({kCardSession});
}

}  // namespace
}  // namespace mirel::test
