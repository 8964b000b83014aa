/// What a report says of the keys of a card and of its PIN.

#include <algorithm>
#include <tuple>

#include "host/CardReportTest.h"

namespace mirel::test {
namespace {

using enum FindingID;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;

class CardReportKeys : public CardReportTest {
 protected:
  [[nodiscard]] KeyReport theKey(const CardReport& report) {
    EXPECT_EQ(report.keys.size(), 1U);
    return report.keys.empty() ? KeyReport{} : report.keys.front();
  }
};

TEST_F(CardReportKeys, SayWhatAGoodKeyWorksFor) {
  addKey("01", "Signer");
  const KeyReport signer = theKey(report());
  EXPECT_EQ(signer.objectID, Text{u"01"});
  EXPECT_EQ(signer.labelOnCard, Text{u"Signer"});
  EXPECT_EQ(signer.works,
            "signs RSA-PSS up to SHA-384; PKCS #1 v1.5 (TLS 1.2 with rsa_pkcs1, CMS (S/MIME), most PDF "
            "signers) unknown until "
            "a trial");
  EXPECT_FALSE(signer.worksForNothing);
  ASSERT_EQ(signer.findings.size(), 1U);
  EXPECT_EQ(signer.findings.front().id, kPkcs1NotTried);
  EXPECT_EQ(signer.findings.front().severity, Severity::kUnknown);

  clearCard();
  addKey("01", "Vault", kForDecrypting);
  EXPECT_EQ(theKey(report()).works, "decrypts PKCS #1 v1.5; not OAEP");
}

TEST_F(CardReportKeys, SayWhatATrialHasShownOfThePadding) {
  EXPECT_THAT(signingPhrase(ModulePadding::kNone, 2048),
              HasSubstr("signs RSA-PSS; not PKCS #1 v1.5 (TLS 1.2"));
  EXPECT_THAT(signingPhrase(ModulePadding::kAdds, 2048), HasSubstr("signs RSA-PSS, PKCS #1 v1.5 (TLS 1.2"));
}

TEST_F(CardReportKeys, SayForWhichHashesTheyAreLongEnough) {
  const std::pair<int, const char*> rows[] = {{1034, "signs RSA-PSS; "},
                                              {1033, "signs RSA-PSS up to SHA-384; "},
                                              {512, "signs RSA-PSS up to SHA-224; "},
                                              {330, "signs RSA-PSS up to SHA-1; "},
                                              {329, "signs no RSA-PSS, for which it is too short; "}};
  for (const auto& [size, phrase] : rows)
    EXPECT_THAT(signingPhrase(ModulePadding::kUnknown, size), ::testing::StartsWith(phrase));
}

TEST_F(CardReportKeys, SayWhatNeverWorks) {
  const struct {
    const char* name;
    std::function<void()> make;
    FindingID id;
    const char* works;
    const char* evidence;
  } rows[] = {
      {"RSA of 3072 bits", [&] { addKey("01", "Long", kForSigning, SoftwareKey::rsa(3072)); }, kRsaKeyTooLong,
       "nothing: RSA keys above 2048 bits never sign here", "RSA, 3072 bits"},
      {"EC to sign", [&] { addEcKey("01", "Curve", kForSigning); }, kEcKeyNeverSigns,
       "nothing: EC keys never sign here", "EC, 256 bits"},
      {"EC to decrypt", [&] { addEcKey("01", "Curve", kForDecrypting); }, kEcKeyNeverSigns,
       "nothing: EC keys never decrypt here", "EC, 256 bits"},
      {"key agreement", [&] { addEcKey("01", "Curve", kForAgreement); }, kNoKeyAgreement,
       "nothing: key agreement gets no answer here", "EC, 256 bits"},
      {"label with PSS", [&] { addKey("01", "my Pss key"); }, kKeyNameWithPss,
       "nothing: its name contains \"PSS\", so its signatures are not handed out", "my Pss key"},
      {"ID with PSS", [&] { addKey("pss1", "Key"); }, kKeyNameWithPss,
       "nothing: its name contains \"PSS\", so its signatures are not handed out", "_pss1_Key"},
      {"no key usage", [&] { addKey("01", "Key", std::nullopt); }, kKeyUsageMissing,
       "nothing: its certificate allows no use", "none of digitalSignature"},
      {"ID of 255 bytes", [&] { addKey(std::string(255, 'x').c_str(), "Key"); }, kKeyIDTooLong,
       "nothing: its ID is longer than 254 bytes", "255 bytes"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    clearCard();
    row.make();
    const CardReport report = this->report();
    const Finding finding = theFinding(report, row.id);
    EXPECT_EQ(finding.severity, Severity::kFailure);
    EXPECT_THAT(finding.evidence, HasSubstr(row.evidence));
    EXPECT_EQ(theKey(report).works, row.works);
    EXPECT_TRUE(theKey(report).worksForNothing);
    EXPECT_EQ(theKey(report).findings.front().id, row.id);
  }
}

TEST_F(CardReportKeys, SeePssInTheSerialNumberButNotInTheLabelOfTheCertificate) {
  addKey("01", "Key");
  lastObject() = lastObject().with(CKA_LABEL, bytesOf("PSS"));
  EXPECT_THAT(troubles(report()), IsEmpty());
  setField(script.card().info.serialNumber, "12PSS");
  EXPECT_THAT(troubles(report()), ElementsAre("MT-K03"));
}

TEST_F(CardReportKeys, AreAWarningWhereAnotherKeyWorks) {
  addEcKey("01", "Curve", kForSigning);
  addKey("02", "Signer");
  EXPECT_EQ(theFinding(report(), kEcKeyNeverSigns).severity, Severity::kWarning);
}

TEST_F(CardReportKeys, ThatShareAnIDWorkOnlyAsTheFirst) {
  addKey("01", "First");
  addKey("01", "Second", kForSigning, otherRsa());
  const CardReport report = this->report();
  ASSERT_GE(report.keys.size(), 2U);
  EXPECT_THAT(report.keys.front().works, HasSubstr("signs"));
  EXPECT_EQ(report.keys.back().works, "nothing: the keychain finds another key with its ID first");
  EXPECT_EQ(report.keys.back().findings.front().id, kIDShared);
}

TEST_F(CardReportKeys, WorkTheSameWithAnotherCertificateOfTheSameUse) {
  const struct {
    unsigned usage;
    const char* works;
  } rows[] = {{kForSigning, "signs RSA-PSS"}, {kForDecrypting, "nothing: the keychain finds another key"}};
  for (const auto& [usage, works] : rows) {
    clearCard();
    addKey("01", "Old");
    addCertificate("01", "New", usage);
    const CardReport report = this->report();
    ASSERT_EQ(report.keys.size(), 2U);
    EXPECT_THAT(report.keys[0].works, HasSubstr("signs RSA-PSS"));
    EXPECT_THAT(report.keys[1].works, HasSubstr(works));
    EXPECT_THAT(troubles(report), ElementsAre("MT-C18"));
  }
}

TEST_F(CardReportKeys, WorkForNothingWhereTheFirstCertificateOfTheirIDIsOfAnotherKey) {
  const auto isOf = [](const Finding& finding) { return finding.id == kCertificateOfOtherKey; };
  for (const bool rightIsFirst : {true, false}) {
    SCOPED_TRACE(rightIsFirst);
    clearCard();
    addPublicKey("01", "Key");
    addPrivateKey("01", "Key");
    addCertificate("01", "First", kForSigning, rightIsFirst ? rsa() : otherRsa());
    addCertificate("01", "Second", kForSigning, rightIsFirst ? otherRsa() : rsa());
    const CardReport report = this->report();
    ASSERT_EQ(report.keys.size(), 2U);
    const auto& [first, second] = std::tie(report.keys[0], report.keys[1]);
    EXPECT_THAT(first.works,
                HasSubstr(rightIsFirst ? "signs RSA-PSS" : "its certificate belongs to another"));
    EXPECT_EQ(second.works, "nothing: the keychain finds another key with its ID first");
    EXPECT_EQ(std::any_of(first.findings.begin(), first.findings.end(), isOf), !rightIsFirst);
    EXPECT_TRUE(std::any_of(second.findings.begin(), second.findings.end(), isOf));
  }
}

TEST_F(CardReportKeys, ThatWantThePinForEachUseSignOnce) {
  addKey("01", "Signer");
  lastObject(1) = lastObject(1).with(CKA_ALWAYS_AUTHENTICATE, boolValue(true));
  EXPECT_THAT(troubles(report()), IsEmpty());  // it is not seen
  const CardReport after = reportAfterLogin();
  EXPECT_THAT(theFinding(after, kPinForEachUse).evidence, HasSubstr("CKA_ALWAYS_AUTHENTICATE"));
  EXPECT_THAT(theKey(after).works, HasSubstr("; at most once after each login"));
  script.card().loggedIn = false;
  script.card().privateObjectsNeedLogin = false;
  EXPECT_THAT(troubles(report()), ElementsAre("MT-K04"));
}

TEST_F(CardReportKeys, ThatTheCardDoesNotAllowAreTold) {
  addKey("01", "Signer");
  lastObject(1) = lastObject(1).with(CKA_SIGN, boolValue(false));
  addKey("02", "Vault", kForDecrypting);
  lastObject(1) = lastObject(1).with(CKA_DECRYPT, boolValue(false));
  const CardReport report = reportAfterLogin();
  EXPECT_THAT(troubles(report), ElementsAre("MT-K11", "MT-K11"));
  EXPECT_EQ(report.keys[0].works, "nothing: the card does not allow its private key to sign");
  EXPECT_EQ(report.keys[1].works, "nothing: the card does not allow its private key to decrypt");
}

// ---- The card ----

TEST_F(CardReportKeys, ComeWithWhatTheFlagsSayOfThePin) {
  addKey("01", "Signer");
  const struct {
    const char* name;
    std::function<void(Card&)> make;
    FindingID id;
    Severity severity;
    const char* evidence;
  } rows[] = {
      {"no word", [](Card&) {}, kPinCountUnknown, Severity::kOk, "the card takes 4 to 16 characters"},
      {"no limits", [](Card& card) { card.info.ulMinPinLen = card.info.ulMaxPinLen = 0; }, kPinCountUnknown,
       Severity::kOk, "tells no limits"},
      {"fewer", [](Card& card) { card.triesLeft = 2; }, kPinTriesFewer, Severity::kWarning, "COUNT_LOW"},
      {"last", [](Card& card) { card.triesLeft = 1; }, kPinLastTry, Severity::kWarning, "FINAL_TRY"},
      {"locked", [](Card& card) { card.triesLeft = 0; }, kPinLocked, Severity::kFailure, "PIN_LOCKED"},
      {"pad", [](Card& card) { card.info.flags |= CKF_PROTECTED_AUTHENTICATION_PATH; }, kPinPad,
       Severity::kFailure, "PROTECTED_AUTHENTICATION_PATH"},
      {"to be changed", [](Card& card) { card.info.flags |= CKF_USER_PIN_TO_BE_CHANGED; }, kPinToBeChanged,
       Severity::kWarning, "USER_PIN_TO_BE_CHANGED"},
      {"not set", [](Card& card) { card.info.flags &= ~CKF_USER_PIN_INITIALIZED; }, kPinNotSet,
       Severity::kFailure, "USER_PIN_INITIALIZED"},
      {"at least 9", [](Card& card) { card.info.ulMinPinLen = 9; }, kPinTooLong, Severity::kFailure,
       "the card takes 9 to 16 characters"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    const Card before = script.card();
    row.make(script.card());
    const Finding finding = theFinding(report(), row.id);
    EXPECT_EQ(finding.severity, row.severity);
    EXPECT_THAT(finding.evidence, HasSubstr(row.evidence));
    script.card() = before;
  }
  for (const CK_ULONG shortest : {CK_ULONG{8}, CK_UNAVAILABLE_INFORMATION}) {
    script.card().info.ulMinPinLen = shortest;
    EXPECT_THAT(troubles(report()), IsEmpty());
  }
}

TEST_F(CardReportKeys, ComeWithTheOtherCardThatTheSystemTakesForThisOne) {
  addKey("01", "Signer");
  script.addSlot("Reader B 01", emptyCard("TESTCARD", "other"));
  EXPECT_THAT(troubles(report()), IsEmpty());
  Card twin = emptyCard("TESTCARD", "1234567890ABCDEF");
  twin.info.flags = script.card().info.flags;
  script.addSlot("Reader C 02", twin);
  const Finding finding = theFinding(report(), kInstanceIDShared);
  EXPECT_EQ(finding.subject, "readers \"Reader A 00\" and \"Reader C 02\"");
  EXPECT_THAT(finding.evidence, HasSubstr("the serial number \"1234567890ABCDEF\""));
}

TEST_F(CardReportKeys, AreThereOnACardThatOnlySaysThatItIsNotInitialised) {
  addKey("01", "Signer");
  script.card().info.flags &= ~CKF_TOKEN_INITIALIZED;
  const CardReport report = host.examine(inserted(Text{u"Reader A 00"}));
  EXPECT_EQ(theFinding(report, kTokenNotInitialised).severity, Severity::kWarning);
}

TEST_F(CardReportKeys, ComeWithACardThatIsNotInitialised) {
  script.card().info.flags &= ~CKF_TOKEN_INITIALIZED;
  const auto found = readers();
  ASSERT_EQ(found.size(), 1U);
  EXPECT_THAT(troubles(host.examine(found.front())), Contains("MT-T02"));
}

}  // namespace
}  // namespace mirel::test
