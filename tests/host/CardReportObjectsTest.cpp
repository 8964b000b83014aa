/// What a report says of the objects of a card.

#include <openssl/ec.h>
#include <openssl/evp.h>

#include <algorithm>

#include "host/CardReportTest.h"

namespace mirel::test {
namespace {

using enum FindingID;
using ::testing::AllOf;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;

class CardReportObjects : public CardReportTest {};

TEST_F(CardReportObjects, HasNothingToSayOfAGoodCard) {
  addKey("01", "Signer");
  EXPECT_THAT(troubles(report()), IsEmpty());
  EXPECT_THAT(troubles(reportAfterLogin()), IsEmpty());
  EXPECT_THAT(report().unpublished, IsEmpty());
}

// ---- A pair that is not whole ----

TEST_F(CardReportObjects, TellsOnceThatACertificateAndItsKeyHaveDifferentIDs) {
  addPublicKey("01", "MyKey");
  addCertificate("02", "MyKey");
  addPublicKey("03", "Another", otherRsa());
  const CardReport report = this->report();
  EXPECT_THAT(theFinding(report, kPublicKeyMissing).evidence,
              HasSubstr("; the one with the ID 3031 is of its key"));
  EXPECT_EQ(theFinding(report, kCertificateMissing).subject, "public key 3033 \"Another\"");
  ASSERT_EQ(report.unpublished.size(), 3U);
  EXPECT_THAT(report.unpublished[0].reason, HasSubstr("; the one with the ID 3032 is of its key"));
}

TEST_F(CardReportObjects, LeavesOpenBeforeALoginWhetherAPublicKeyIsMissing) {
  addKey("01", "Good");
  addCertificate("02", "Lonely");
  const CardReport report = this->report();
  const Finding finding = theFinding(report, kPublicKeyMissing);
  EXPECT_EQ(finding.subject, "certificate 3032 \"Lonely\"");
  EXPECT_THAT(finding.evidence, HasSubstr("is visible before login: it is missing, or private"));
  EXPECT_EQ(finding.severity, Severity::kWarning);
  ASSERT_EQ(report.unpublished.size(), 1U);
  EXPECT_EQ(report.unpublished.front().cause, kPublicKeyMissing);
}

TEST_F(CardReportObjects, TellsAfterALoginThatAPublicKeyIsMissing) {
  addPrivateKey("01", "MyKey");
  addCertificate("01", "MyKey");
  const CardReport report = reportAfterLogin();
  EXPECT_TRUE(report.loggedIn);
  const Finding finding = theFinding(report, kPublicKeyMissing);
  EXPECT_THAT(finding.evidence, AllOf(HasSubstr("no public key on the card has its ID"),
                                      HasSubstr("its private key is on the card")));
  EXPECT_EQ(finding.severity, Severity::kFailure);
}

TEST_F(CardReportObjects, UsesAPrivateKeyThatShowsWithoutALogin) {
  script.card().privateObjectsNeedLogin = false;
  addPrivateKey("01", "MyKey");
  addCertificate("01", "MyKey");
  EXPECT_THAT(theFinding(report(), kPublicKeyMissing).evidence, HasSubstr("its private key is on the card"));
}

TEST_F(CardReportObjects, TellsAfterALoginThatAPublicKeyIsPrivate) {
  addKey("01", "MyKey");
  lastObject(2) = lastObject(2).with(CKA_PRIVATE, boolValue(true));
  EXPECT_THAT(theFinding(report(), kPublicKeyMissing).evidence, HasSubstr("missing, or private"));
  const CardReport report = reportAfterLogin();
  EXPECT_THAT(troubles(report), ElementsAre("MT-C07"));
  EXPECT_EQ(theFinding(report, kPublicKeyPrivate).subject, "public key 3031 \"MyKey\"");
  ASSERT_EQ(report.unpublished.size(), 2U);
  EXPECT_EQ(report.unpublished[1].reason, "its public key is visible only after login");
  EXPECT_EQ(report.unpublished[1].cause, kPublicKeyPrivate);
}

TEST_F(CardReportObjects, TellsAfterALoginThatACertificateIsPrivate) {
  addKey("01", "MyKey");
  lastObject() = lastObject().with(CKA_PRIVATE, boolValue(true));
  EXPECT_THAT(theFinding(report(), kCertificateMissing).evidence, HasSubstr("missing, or private"));
  EXPECT_THAT(troubles(reportAfterLogin()), ElementsAre("MT-C09"));
}

TEST_F(CardReportObjects, TellsAfterALoginThatAPrivateKeyIsMissing) {
  addPublicKey("01", "MyKey");
  addCertificate("01", "MyKey");
  const CardReport before = report();
  EXPECT_THAT(troubles(before), IsEmpty());
  ASSERT_EQ(before.keys.size(), 1U);
  EXPECT_FALSE(before.keys.front().hasPrivateKey.has_value());

  const CardReport after = reportAfterLogin();
  EXPECT_EQ(theFinding(after, kPrivateKeyMissing).subject, "key 3031 \"MyKey\"");
  EXPECT_EQ(after.keys.front().hasPrivateKey, false);
  EXPECT_EQ(after.keys.front().works, "nothing: its private key is missing");
}

TEST_F(CardReportObjects, TellsThatAKeyHasNoCertificate) {
  script.card().privateObjectsNeedLogin = false;
  addPublicKey("01", "MyKey");
  addPrivateKey("01", "MyKey");
  EXPECT_THAT(theFinding(report(), kCertificateMissing).evidence,
              HasSubstr("there is no certificate at all, but 1 public key and 1 private key"));
}

TEST_F(CardReportObjects, TellsOfPrivateKeysThatAreAllThereIs) {
  addPrivateKey("01", "MyKey");
  const Finding before = theFinding(report(), kCardEmpty);
  EXPECT_THAT(before.evidence, HasSubstr("visible before login"));
  const CardReport after = reportAfterLogin();
  EXPECT_EQ(theFinding(after, kCertificateMissing).subject, "private key 3031 \"MyKey\"");
  EXPECT_THAT(troubles(after), Not(Contains("MT-C01")));
}

TEST_F(CardReportObjects, ExpectsNoKeyForTheCertificateOfAnIssuer) {
  const struct {
    std::optional<unsigned> usage;
    bool isExpected;
  } rows[] = {{std::nullopt, true},
              {kForCertificates, true},
              {kForCertificates | kForSigning, true},
              {kForSigning, false}};
  for (const auto& row : rows) {
    SCOPED_TRACE(row.usage.value_or(0));
    clearCard();
    addKey("01", "Signer");
    script.addObject(certificate(bytesOf("09"), bytesOf("Root"), authorityCertificate(row.usage)));
    const CardReport report = this->report();
    const auto isAboutIt = [](const Finding& finding) { return finding.id == kPublicKeyMissing; };
    EXPECT_EQ(std::none_of(report.findings.begin(), report.findings.end(), isAboutIt), row.isExpected);
    EXPECT_EQ(troubles(report).empty(), row.isExpected);
    ASSERT_EQ(report.unpublished.size(), 1U);
    EXPECT_EQ(report.unpublished.front().expected, row.isExpected);
  }
}

TEST_F(CardReportObjects, FailsWhereOnlyCertificatesOfIssuersAreThere) {
  script.addObject(certificate(bytesOf("09"), bytesOf("Root"), authorityCertificate(kForCertificates)));
  EXPECT_THAT(troubles(report()), ElementsAre("MT-C17"));
  addPrivateKey("01", "MyKey");
  EXPECT_EQ(theFinding(report(), kNothingPublished).evidence,
            "1 certificate and 0 public keys show, and none of them is published");
  EXPECT_THAT(troubles(reportAfterLogin()), ElementsAre("MT-C08"));
}

// ---- Objects that do not fit ----

TEST_F(CardReportObjects, TellsACertificateOfAnotherKey) {
  addPublicKey("01", "MyKey", otherRsa());
  addCertificate("01", "MyCertificate");
  addPublicKey("02", "Of another kind");
  addCertificate("02", "Of another kind", kForSigning, SoftwareKey::ec("P-256"));
  addKey("03", "Good");
  addEcKey("04", "Good too", kForSigning);
  addKey("06", "Of a kind that is not known");
  lastObject(2) = lastObject(2).with(CKA_KEY_TYPE, ulongValue(CKK_DSA));
  addPublicKey("05", "Without a use", otherRsa());
  addCertificate("05", "Without a use", std::nullopt);
  const CardReport report = this->report();
  std::vector<std::string> subjects;
  for (const Finding& finding : report.findings) {
    if (finding.id != kCertificateOfOtherKey) continue;
    subjects.push_back(finding.subject);
    EXPECT_THAT(finding.evidence, HasSubstr("certificate and public key differ"));
  }
  EXPECT_THAT(
      subjects,
      ElementsAre("certificate 3031 \"MyCertificate\"", "certificate 3032 \"Of another kind\"",
                  "certificate 3036 \"Of a kind that is not known\"", "certificate 3035 \"Without a use\""));
  ASSERT_EQ(report.keys.size(), 6U);
  for (const std::size_t i : {0U, 1U, 4U, 5U}) {
    EXPECT_EQ(report.keys[i].works, "nothing: its certificate belongs to another key");
    EXPECT_EQ(report.keys[i].findings.size(), 1U);  // nothing is told of the key by what is not its own
  }
}

TEST_F(CardReportObjects, TakesAPointWithoutItsHeaderAndACompressedOne) {
  const SoftwareKey& key = SoftwareKey::ec("P-256");
  const Value bare = pointOf(key);
  Value compressed(bare.begin(), bare.begin() + 33);
  compressed[0] = static_cast<CK_BYTE>(0x02 | (bare.back() & 0x01));
  for (const Value& point : {bare, compressed}) {
    clearCard();
    addEcKey("01", "Curve", kForSigning);
    lastObject(2) = lastObject(2).with(CKA_EC_POINT, point);
    EXPECT_THAT(troubles(report()), Not(Contains("MT-C11")));
    Value other = point;
    other[5] = static_cast<CK_BYTE>(other[5] ^ 0xFF);
    lastObject(2) = lastObject(2).with(CKA_EC_POINT, other);
    EXPECT_THAT(troubles(report()), Contains("MT-C11"));
  }
}

/// The key on P-256 whose private number is that one; in DER, RFC 5915.
SoftwareKey keyOfNumber(std::uint32_t number) {
  constexpr CK_BYTE kCurve[] = {0xA0, 0x0A, 0x06, 0x08, 0x2A, 0x86, 0x48, 0xCE, 0x3D, 0x03, 0x01, 0x07};
  Value der{0x30, 0x31, 0x02, 0x01, 0x01, 0x04, 0x20};
  der.resize(der.size() + 28);
  for (const unsigned shift : {24U, 16U, 8U, 0U}) der.push_back(static_cast<CK_BYTE>(number >> shift));
  der.insert(der.end(), std::begin(kCurve), std::end(kCurve));
  const CK_BYTE* start = der.data();
  return SoftwareKey{d2i_PrivateKey(EVP_PKEY_EC, nullptr, &start, static_cast<long>(der.size()))};
}

TEST_F(CardReportObjects, TakesABarePointThatBeginsLikeAWrappedOne) {
  // Behind the 63, as of a length, one has 1 and the other 5: no point that is wrapped begins so.
  for (const std::uint32_t number : {63301U, 15449U}) {
    clearCard();
    const SoftwareKey key = keyOfNumber(number);
    ASSERT_EQ(pointOf(key)[1], 63);
    addEcKey("01", "Curve", kForSigning);
    lastObject(2) = lastObject(2).with(CKA_EC_POINT, pointOf(key));
    lastObject() = lastObject().with(CKA_VALUE, key.certificate(kForSigning));
    EXPECT_THAT(troubles(report()), Not(Contains("MT-C11"))) << number;
  }
}

TEST_F(CardReportObjects, TellsThatACertificateOfAnUnknownKindOfKeyIsPublishedOnlyWhereItIs) {
  for (const bool isOnToken : {true, false}) {
    clearCard();
    addPublicKey("01", "Odd");
    addCertificate("01", "Odd", kForSigning, SoftwareKey::ec("secp256k1"));
    lastObject() = lastObject().with(CKA_TOKEN, boolValue(isOnToken));
    const CardReport report = this->report();
    const auto isExplained = [&](const UnpublishedObject& object) {
      return object.kind == (isOnToken ? "public key" : "certificate") &&
             object.reason.find(isOnToken ? "only its certificate is published"
                                          : "the token does not list it") != std::string::npos;
    };
    EXPECT_EQ(std::count_if(report.unpublished.begin(), report.unpublished.end(), isExplained), 1);
    EXPECT_EQ(report.unpublished.size(), isOnToken ? 1U : 2U);
  }
}

TEST_F(CardReportObjects, TellsWhichObjectsShareAnID) {
  addKey("01", "First");
  addKey("01", "Second", kForSigning, otherRsa());
  const CardReport report = this->report();
  const Finding finding = theFinding(report, kIDShared);
  EXPECT_EQ(finding.subject, "ID 3031");
  EXPECT_EQ(finding.evidence,
            "2 certificates (\"First\", \"Second\"), 2 public keys (\"First\", \"Second\")");
}

TEST_F(CardReportObjects, DoesNotMindCertificatesWithOneIDAndNoKey) {
  addKey("01", "Good");
  for (const char* label : {"Root", "Other root"})
    script.addObject(certificate(bytesOf("09"), bytesOf(label), authorityCertificate(kForCertificates)));
  EXPECT_THAT(troubles(report()), IsEmpty());
}

TEST_F(CardReportObjects, TellsCertificatesOfOneKeyFromKeysThatShareAnID) {
  addKey("01", "Old");
  addCertificate("01", "New");
  EXPECT_EQ(theFinding(report(), kCertificatesOfOneKey).evidence, "2 certificates (\"Old\", \"New\")");
  clearCard();
  addKey("01", "Old");
  addCertificate("01", "Other", kForSigning, otherRsa());
  EXPECT_THAT(troubles(report()), Contains("MT-C12"));
}

TEST_F(CardReportObjects, SaysOfACertificateThatCannotBeUsedNothingOfItsID) {
  addKey("01", "Good");
  addCertificate("01", "Broken");
  lastObject().attributes[CKA_VALUE].resize(40);
  const CardReport one = report();
  EXPECT_THAT(troubles(one), ElementsAre("MT-C05"));
  EXPECT_EQ(theFinding(one, kCertificateUnusable).severity, Severity::kWarning);  // its key works
  EXPECT_THAT(one.keys, SizeIs(1));
  addCertificate("01", "New");
  const CardReport two = report();
  EXPECT_THAT(troubles(two), ElementsAre("MT-C05", "MT-C18"));
  EXPECT_EQ(theFinding(two, kCertificatesOfOneKey).evidence, "2 certificates (\"Good\", \"New\")");
}

TEST_F(CardReportObjects, TellsValidity) {
  addKey("01", "Old");
  lastObject() = lastObject().with(CKA_VALUE, withTime(rsa().certificate(kForSigning), "350102", "210101"));
  addKey("02", "New");
  lastObject() = lastObject().with(CKA_VALUE, withTime(rsa().certificate(kForSigning), "200101", "390101"));
  const CardReport report = this->report();
  EXPECT_THAT(theFinding(report, kCertificateExpired).evidence,
              HasSubstr("valid until 2021-01-01T03:04:05Z"));
  EXPECT_EQ(theFinding(report, kCertificateExpired).subject, "certificate 3031 \"Old\"");
  EXPECT_THAT(theFinding(report, kCertificateNotYetValid).evidence, HasSubstr("valid from 2039-01-01"));
  EXPECT_EQ(theFinding(report, kCertificateNotYetValid).subject, "certificate 3032 \"New\"");
}

TEST_F(CardReportObjects, TellsThatThereAreMoreThanAreListed) {
  addKey("01", "MyKey");
  for (int i = 0; i < 160; ++i) addPublicKey("02", "Other");
  const CardReport report = this->report();
  EXPECT_EQ(theFinding(report, kTooManyObjects).subject, "public keys");
  clearCard();
  for (int i = 0; i < 160; ++i) addPublicKey("02", "Other");
  EXPECT_THAT(troubles(this->report()), Not(Contains("MT-C16")));
}

TEST_F(CardReportObjects, DoesNotMissWhatMayBeBehindTheLimit) {
  addCertificate("01", "MyKey");
  for (int i = 0; i < 161; ++i) addPublicKey("02", "Other");
  for (int i = 0; i < 159; ++i) addCertificate("02", "Other");
  const CardReport report = this->report();
  ASSERT_THAT(report.unpublished, SizeIs(1));
  EXPECT_EQ(report.unpublished[0].cause, kTooManyObjects);
  EXPECT_EQ(report.unpublished[0].reason,
            "none of the first 160 public keys has its ID, and no more are listed");
  EXPECT_THAT(troubles(report), Not(Contains("MT-C06")));

  clearCard();
  addPublicKey("01", "MyKey");
  addPublicKey("02", "Other");
  for (int i = 0; i < 161; ++i) addCertificate("02", "Other");
  EXPECT_EQ(this->report().unpublished[0].cause, kTooManyObjects);
}

TEST_F(CardReportObjects, TellsWhatIsLeftOutAndWhy) {
  addKey("01", "MyKey");
  addKey("02", "No modulus");
  lastObject(2) = lastObject(2).without(CKA_MODULUS);
  addPublicKey("03", "No certificate in it");
  script.addObject(certificate(bytesOf("03"), bytesOf("None"), patternValue(300, 1)));
  const CardReport report = this->report();
  EXPECT_THAT(troubles(report), ElementsAre("MT-C04", "MT-C05"));
  EXPECT_EQ(theFinding(report, kObjectLeftOut).subject, "public key 3032 \"No modulus\"");
  EXPECT_EQ(theFinding(report, kCertificateUnusable).subject, "certificate 3033 \"None\"");
  std::vector<std::string> reasons;
  for (const UnpublishedObject& object : report.unpublished) reasons.push_back(object.reason);
  EXPECT_THAT(reasons,
              ElementsAre("its modulus cannot be read, CKR_ATTRIBUTE_TYPE_INVALID (0x12)",
                          "no certificate with its ID can be read", "the public key with its ID is left out",
                          "its value is not an X.509 certificate in DER"));
}

// ---- A card that is hidden ----

TEST_F(CardReportObjects, TellsAllObjectsThatHideTheCardAndWhatIsLost) {
  addKey("01", "Good");
  addKey("02", "Broken");
  lastObject() = lastObject().with(CKA_LABEL, {});
  addKey("03", "Large");
  lastObject() = lastObject().with(CKA_VALUE, Value(2516, 'x'));
  const Failure failure = failureOf(host.insert(Text{}));
  EXPECT_THAT(failure.why,
              AllOf(HasSubstr("certificate 3032: its label is empty"),
                    HasSubstr("certificate 3033 \"Large\": its value has 2516 bytes, more than 2000"),
                    HasSubstr("lost by it: 3031 \"Good\"")));
  const CardReport report = host.examine(readers().front());
  EXPECT_TRUE(report.hidden);
  EXPECT_THAT(troubles(report), ElementsAre("MT-C02", "MT-C02"));
  ASSERT_EQ(report.unpublished.size(), 4U);
  EXPECT_EQ(report.unpublished[0].kind, "public key");
  EXPECT_EQ(report.unpublished[0].cause, kObjectHidesCard);  // of its certificate
  EXPECT_FALSE(report.unpublished[0].blocksCard);
  ASSERT_EQ(report.keys.size(), 1U);
  EXPECT_EQ(report.keys.front().works, "nothing: the whole card is hidden");
}

TEST_F(CardReportObjects, MissesNothingThatMayBeTheObjectWithoutAnID) {
  script.card().privateObjectsNeedLogin = false;
  addKey("01", "MyKey");
  lastObject(2) = lastObject(2).with(CKA_ID, {});
  lastObject() = lastObject().with(CKA_ID, {});
  const CardReport report = host.examine(readers().front());
  EXPECT_THAT(troubles(report), ElementsAre("MT-C02", "MT-C02"));
  addPublicKey("02", "Other");
  EXPECT_THAT(troubles(host.examine(readers().front())), ElementsAre("MT-C02", "MT-C02"));
}

TEST_F(CardReportObjects, MissesWhatTheObjectWithoutAnIDCannotBe) {
  addPublicKey("01", "Lonely");
  addCertificate("02", "Other", kForSigning, otherRsa());
  lastObject() = lastObject().with(CKA_ID, {});
  EXPECT_THAT(troubles(host.examine(readers().front())), ElementsAre("MT-C02", "MT-C08"));
}

TEST_F(CardReportObjects, TellsWhatIsLostByAHiddenCardOnlyAsFarAsItWasRead) {
  const struct {
    const char* name;
    const char* good;  // key; null: none
    const char* function;
    std::size_t fromLast;  // of its calls; 0: none fails
    const char* lost;
  } rows[] = {
      {"nothing", nullptr, "C_FindObjects", 0, "; no good key is lost by it"},
      {"keys not sought", "Good", "C_FindObjectsInit", 3,
       "; what is lost by it cannot be told now, C_FindObjectsInit answered CKR_DEVICE_ERROR"},
      {"no key found", nullptr, "C_FindObjectsInit", 3,
       "; what is lost by it cannot be told now, C_FindObjectsInit answered CKR_DEVICE_ERROR"},
      {"an attribute not read", "Good", "C_GetAttributeValue", 4,
       "; lost by it: 3031 \"Good\"; what else cannot be told now, C_GetAttributeValue answered"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    const auto failure = [&](const std::function<void()>& arm) {
      script.reset();
      clearCard();
      if (row.good) addKey("01", row.good);
      addCertificate("02", "Broken");
      lastObject() = lastObject().with(CKA_LABEL, {});
      addCertificate("03", "Alone");
      arm();
      return failureOf(host.insert(Text{}));
    };
    (void)failure([] {});
    const std::size_t calls = script.countOf(row.function);
    const Failure told = failure([&] {
      if (row.fromLast > 0) script.failCallOf(row.function, calls - row.fromLast, CKR_DEVICE_ERROR);
    });
    EXPECT_EQ(script.fired(), row.fromLast > 0);
    EXPECT_THAT(told.why, AllOf(HasSubstr("certificate 3032: its label is empty"), HasSubstr(row.lost)));
  }
}

}  // namespace
}  // namespace mirel::test
