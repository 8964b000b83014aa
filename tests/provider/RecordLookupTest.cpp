/// The queries that look into what was read.

#include "provider/ProviderTest.h"

namespace mirel::test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

class RecordLookup : public ProviderTest {
 protected:
  RecordLookup() {
    openSession();
    listedCertificate = listedCertificates().at(0);
    key = record().pAsymKeys()->at(0);
    script.forgetCalls();
    log->allLines.clear();
  }

  std::shared_ptr<PKCS11_ASYMKEY_INFO> addKey(std::u16string_view id) {
    const auto added = std::make_shared<PKCS11_ASYMKEY_INFO>();
    added->setKeyID(Text{id});
    record().pAsymKeys()->push_back(added);
    return added;
  }

  std::shared_ptr<PKCS11_ASYMKEY_INFO> key;
  std::shared_ptr<PKCS11_CERTIFICATEOBJ_INFO> listedCertificate;
};

TEST_F(RecordLookup, FindsWhatTheListsHold) {
  EXPECT_EQ(provider->getTokenKeyName(key), Text{u"1234567890ABCDEF_RSA_01_MyKey"});
  EXPECT_EQ(provider->getPublicKeyValue(key), Bytes{patternValue(256, 0xC5)});
  EXPECT_EQ(provider->getCertName(listedCertificate), Text{u"cert_MyKey_01"});
  EXPECT_EQ(provider->getCertID(listedCertificate), Text{u"01"});
  EXPECT_EQ(provider->getCertData(listedCertificate), Bytes{patternValue(700, 0x30)});
  EXPECT_EQ(provider->getKeyFromCertID(provider->getCertID(listedCertificate)), key);
}

TEST_F(RecordLookup, MakesNoCallAndLogsNothingForWhatIsThere) {
  (void)provider->getTokenKeyName(key);
  (void)provider->getPublicKeyValue(key);
  (void)provider->getCertName(listedCertificate);
  (void)provider->getCertID(listedCertificate);
  (void)provider->getCertData(listedCertificate);
  (void)provider->getKeyFromCertID(Text{u"01"});
  EXPECT_THAT(script.callTexts(), IsEmpty());
  EXPECT_THAT(log->allLines, IsEmpty());
}

TEST_F(RecordLookup, GoesByIdentityNotByContent) {
  const auto sameKey = key->mutableCopyWithZone();
  const auto sameCertificate = listedCertificate->mutableCopyWithZone();
  EXPECT_EQ(provider->getTokenKeyName(sameKey), Text{u""});
  EXPECT_TRUE(provider->getPublicKeyValue(sameKey).isNull());
  EXPECT_EQ(provider->getCertName(sameCertificate), Text{u""});
  EXPECT_EQ(provider->getCertID(sameCertificate), Text{u""});
  EXPECT_TRUE(provider->getCertData(sameCertificate).isNull());
}

TEST_F(RecordLookup, LogsAnUnknownCertificateOnlyWhenItsIdentifierIsAskedFor) {
  const auto unknown = std::make_shared<PKCS11_CERTIFICATEOBJ_INFO>();
  (void)provider->getCertName(unknown);
  (void)provider->getCertData(unknown);
  EXPECT_THAT(log->allLines, IsEmpty());
  (void)provider->getCertID(unknown);
  EXPECT_THAT(log->allLines, ElementsAre("process: [CryptTKitSProvider-143] pCerts.count = 1"));
}

TEST_F(RecordLookup, LogsHowManyCertificatesThereAre) {
  for (int i = 0; i < 41; ++i) record().pCerts()->push_back(std::make_shared<PKCS11_CERTIFICATEOBJ_INFO>());
  (void)provider->getCertID(std::make_shared<PKCS11_CERTIFICATEOBJ_INFO>());
  record().setPCerts(nullptr);
  (void)provider->getCertID(listedCertificate);
  framework().setP11ServiceInfo(nullptr);
  (void)provider->getCertID(listedCertificate);
  EXPECT_THAT(log->allLines, ElementsAre("process: [CryptTKitSProvider-143] pCerts.count = 42",
                                         "process: [CryptTKitSProvider-143] pCerts.count = 0",
                                         "process: [CryptTKitSProvider-143] pCerts.count = 0"));
}

TEST_F(RecordLookup, DoesNotKnowNullRecords) {
  EXPECT_EQ(provider->getTokenKeyName(nullptr), Text{u""});
  EXPECT_TRUE(provider->getPublicKeyValue(nullptr).isNull());
  EXPECT_EQ(provider->getCertName(nullptr), Text{u""});
  EXPECT_EQ(provider->getCertID(nullptr), Text{u""});
  EXPECT_TRUE(provider->getCertData(nullptr).isNull());
  EXPECT_THAT(log->allLines, ElementsAre("process: [CryptTKitSProvider-143] pCerts.count = 1"));
}

TEST_F(RecordLookup, FindsNothingWithoutListsOrRecord) {
  record().setPAsymKeys(nullptr);
  record().setPCerts(nullptr);
  for (int i = 0; i < 2; ++i) {
    SCOPED_TRACE(i == 0 ? "without lists" : "without a record");
    EXPECT_EQ(provider->getTokenKeyName(key), Text{u""});
    EXPECT_TRUE(provider->getPublicKeyValue(key).isNull());
    EXPECT_EQ(provider->getCertName(listedCertificate), Text{u""});
    EXPECT_EQ(provider->getCertID(listedCertificate), Text{u""});
    EXPECT_TRUE(provider->getCertData(listedCertificate).isNull());
    EXPECT_EQ(provider->getKeyFromCertID(Text{u"01"}), nullptr);
    framework().setP11ServiceInfo(nullptr);
  }
}

TEST_F(RecordLookup, DoesNotKnowRecordsFromBeforeTheLastReading) {
  script.addObject(certificate(bytesOf("01"), bytesOf("New"), patternValue(10, 1)));
  ASSERT_TRUE(provider->getTokenCerts(reader(), nullptr));
  EXPECT_EQ(provider->getCertName(listedCertificate), Text{u""});
  EXPECT_EQ(provider->getCertID(listedCertificate), Text{u""});
  EXPECT_TRUE(provider->getCertData(listedCertificate).isNull());
  EXPECT_EQ(provider->getTokenKeyName(key), Text{u""});
  EXPECT_TRUE(provider->getPublicKeyValue(key).isNull());
  EXPECT_THAT(log->allLines, ElementsAre("process: [CryptTKitSProvider-143] pCerts.count = 2"));
}

TEST_F(RecordLookup, DoesNotKnowRecordsFromBeforeTheCardWasSelectedAgain) {
  ASSERT_FALSE(provider->getSupportedTokenDescription(reader()).isEmpty());
  EXPECT_EQ(provider->getCertName(listedCertificate), Text{u""});
  EXPECT_EQ(provider->getTokenKeyName(key), Text{u""});
  EXPECT_EQ(provider->getKeyFromCertID(Text{u"01"}), nullptr);
}

TEST_F(RecordLookup, WritesNullForAMissingLabelOrIdentifier) {
  const auto listed = listedCertificate;
  listed->setStrLabel(Text{});
  EXPECT_EQ(provider->getCertName(listed), Text{u"cert_(null)_01"});
  listed->setStrID(Text{});
  EXPECT_EQ(provider->getCertName(listed), Text{u"cert_(null)_(null)"});
  EXPECT_EQ(provider->getCertID(listed), Text{u"(null)"});
  listed->setStrLabel(Text{u""});
  EXPECT_EQ(provider->getCertName(listed), Text{u"cert__(null)"});
}

TEST_F(RecordLookup, HandsOutMembersThatAreNullAsTheyAre) {
  key->setKeyName(Text{});
  key->setPKeyValue(Bytes{});
  listedCertificate->setPbCertData(Bytes{});
  EXPECT_TRUE(provider->getTokenKeyName(key).isNull());
  EXPECT_TRUE(provider->getPublicKeyValue(key).isNull());
  EXPECT_TRUE(provider->getCertData(listedCertificate).isNull());
}

TEST_F(RecordLookup, KeepsEveryByteOfBinaryLabelsAndIdentifiers) {
  emptyTheCard();
  const Value id{0x00, 0x01, 0x80, 0xFF};
  script.addObject(rsaPublicKey(id, {0x00}, patternValue(128, 1)));
  script.addObject(certificate(id, {'A', 0x00, 0xE9}, patternValue(10, 1)));
  const auto certificates = listedCertificates();
  ASSERT_EQ(certificates.size(), 1U);
  EXPECT_EQ(provider->getCertName(certificates[0]), Text{u"cert_A\0\u00E9_\0\1\u0080\u00FF"sv});
  EXPECT_EQ(provider->getCertID(certificates[0]), Text{u"\0\1\u0080\u00FF"sv});
}

// ---- getKeyFromCertID ----

TEST_F(RecordLookup, FindsTheFirstOfTwoKeysWithOneIdentifier) {
  const auto second = addKey(u"01");
  EXPECT_EQ(provider->getKeyFromCertID(Text{u"01"}), key);
  record().pAsymKeys()->erase(record().pAsymKeys()->begin());
  EXPECT_EQ(provider->getKeyFromCertID(Text{u"01"}), second);
}

TEST_F(RecordLookup, ComparesIdentifiersCharacterForCharacter) {
  record().pAsymKeys()->clear();
  const std::u16string_view identifiers[] = {
      u"01"sv,   u"0"sv,    u"01 "sv,    u"aB"sv,     u"ab"sv, u"\0"sv,
      u"\0\1"sv, u"\0\0"sv, u"\u0080"sv, u"\u00FF"sv, u""sv,
  };
  std::vector<std::shared_ptr<PKCS11_ASYMKEY_INFO>> keys;
  for (const auto id : identifiers) keys.push_back(addKey(id));
  for (std::size_t i = 0; i < keys.size(); ++i) {
    SCOPED_TRACE(i);
    EXPECT_EQ(provider->getKeyFromCertID(Text{identifiers[i]}), keys[i]);
  }
  for (const auto unknown : {u"1"sv, u"010"sv, u"AB"sv, u"\0\1\2"sv, u"\u0180"sv, u"?"sv}) {
    EXPECT_EQ(provider->getKeyFromCertID(Text{unknown}), nullptr);
  }
}

TEST_F(RecordLookup, FindsNoKeyForNoIdentifier) {
  addKey(u"")->setKeyID(Text{});
  EXPECT_EQ(provider->getKeyFromCertID(Text{}), nullptr);
  EXPECT_EQ(provider->getKeyFromCertID(Text{u""}), nullptr);
}

TEST_F(RecordLookup, PassesOverNullEntries) {
  record().pAsymKeys()->insert(record().pAsymKeys()->begin(), nullptr);
  record().pCerts()->insert(record().pCerts()->begin(), nullptr);
  EXPECT_EQ(provider->getKeyFromCertID(Text{u"01"}), key);
  EXPECT_EQ(provider->getCertID(listedCertificate), Text{u"01"});
  EXPECT_EQ(provider->getCertName(nullptr), Text{u""});
  EXPECT_TRUE(provider->getPublicKeyValue(nullptr).isNull());
}

}  // namespace
}  // namespace mirel::test
