/// The queries that read the card's objects, and those that look into what was read.

#include "provider/ProviderTest.h"

namespace mirel::test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::SizeIs;

// ---- getTokenPubKeys and getTokenCerts ----

class TokenObjects : public ProviderTest {
 protected:
  TokenObjects() { openSession(); }

  const std::shared_ptr<PKCS11_ASYMKEY_INFO> ownKey = std::make_shared<PKCS11_ASYMKEY_INFO>();
  const std::shared_ptr<PKCS11_CERTIFICATEOBJ_INFO> own = std::make_shared<PKCS11_CERTIFICATEOBJ_INFO>();
  CryptTKitSProvider::KeyList keys{ownKey};
  CryptTKitSProvider::CertificateList certificates{own};
};

TEST_F(TokenObjects, AreTheFrameworksOwnRecordsAppendedInTheirOrderWhateverTheReadersName) {
  script.addSlot("Reader B 01", emptyCard("OTHERCARD", "FEDCBA0987654321"));
  script.addObject(rsaPublicKey(bytesOf("02"), bytesOf("Second"), patternValue(128, 1)));
  script.addObject(certificate(bytesOf("01"), bytesOf("Second"), patternValue(100, 1)));
  EXPECT_TRUE(provider->getTokenPubKeys(Text{u"Reader B 01"}, &keys));
  ASSERT_THAT(*record().pAsymKeys(), SizeIs(2));
  EXPECT_THAT(keys, ElementsAre(ownKey, record().pAsymKeys()->at(0), record().pAsymKeys()->at(1)));
  EXPECT_EQ(keys[1]->keyName(), Text{u"1234567890ABCDEF_RSA_01_MyKey"});
  EXPECT_TRUE(provider->getTokenCerts(Text{}, &certificates));
  ASSERT_THAT(*record().pCerts(), SizeIs(2));
  EXPECT_THAT(certificates, ElementsAre(own, record().pCerts()->at(0), record().pCerts()->at(1)));
  EXPECT_EQ(script.countOf("C_GetSlotList"), 0U) << "no other card is selected on the way";
  // Each of the two reads anew.
  EXPECT_EQ(script.countOf("C_FindObjectsInit"), 4U);
  EXPECT_NE(keys[1], record().pAsymKeys()->at(0));
}

TEST_F(TokenObjects, CanBeAppendedToTheListThatTheFrameworkReplacesOrKeeps) {
  (void)listedKeys();
  const auto oldKeys = record().pAsymKeys();
  EXPECT_TRUE(provider->getTokenPubKeys(reader(), oldKeys.get()));
  EXPECT_THAT(*oldKeys, ElementsAre(record().pAsymKeys()->at(0))) << "the reading has emptied it";
  const auto oldCertificates = record().pCerts();
  EXPECT_TRUE(provider->getTokenCerts(reader(), oldCertificates.get()));
  EXPECT_THAT(*oldCertificates, ElementsAre(record().pCerts()->at(0)));
  // A card without objects leaves the framework's lists in their place, emptied.
  script.card().objects.clear();
  const auto keptKeys = record().pAsymKeys();
  EXPECT_TRUE(provider->getTokenPubKeys(reader(), keptKeys.get()));
  EXPECT_EQ(record().pAsymKeys(), keptKeys);
  EXPECT_THAT(*keptKeys, IsEmpty());
  const auto keptCertificates = record().pCerts();
  EXPECT_TRUE(provider->getTokenCerts(reader(), keptCertificates.get()));
  EXPECT_THAT(*keptCertificates, IsEmpty());
}

TEST_F(TokenObjects, AreOnlyReadWithoutAListAndNotAppendedWhenReadingFails) {
  EXPECT_TRUE(provider->getTokenPubKeys(reader(), nullptr));
  EXPECT_TRUE(provider->getTokenCerts(reader(), nullptr));
  EXPECT_EQ(script.countOf("C_FindObjectsInit"), 4U);
  script.failCallOf("C_FindObjectsInit", 0, CKR_DEVICE_ERROR);
  EXPECT_FALSE(provider->getTokenPubKeys(reader(), &keys));
  EXPECT_FALSE(provider->getTokenCerts(reader(), &certificates)) << "there is no record any more";
  EXPECT_THAT(keys, ElementsAre(ownKey));
  EXPECT_THAT(certificates, ElementsAre(own));
  EXPECT_THAT(log->allLines, IsEmpty());
}

// ---- The look-ups ----

class RecordLookup : public ProviderTest {
 protected:
  RecordLookup() {
    openSession();
    listedCertificate = listedCertificates().at(0);
    key = record().pAsymKeys()->at(0);
    script.forgetCalls();
    log->allLines.clear();
  }

  std::shared_ptr<PKCS11_ASYMKEY_INFO> addKey(const Text& id) {
    record().pAsymKeys()->push_back(std::make_shared<PKCS11_ASYMKEY_INFO>());
    record().pAsymKeys()->back()->setKeyID(id);
    return record().pAsymKeys()->back();
  }
  /// Expects the records to be unknown, which only one query logs.
  void expectUnknown(const std::shared_ptr<PKCS11_ASYMKEY_INFO>& aKey,
                     const std::shared_ptr<PKCS11_CERTIFICATEOBJ_INFO>& aCertificate,
                     std::size_t numCertificates) {
    log->allLines.clear();
    EXPECT_EQ(provider->getTokenKeyName(aKey), Text{u""});
    EXPECT_TRUE(provider->getPublicKeyValue(aKey).isNull());
    EXPECT_EQ(provider->getCertName(aCertificate), Text{u""});
    EXPECT_TRUE(provider->getCertData(aCertificate).isNull());
    EXPECT_THAT(log->allLines, IsEmpty());
    EXPECT_EQ(provider->getCertID(aCertificate), Text{u""});
    EXPECT_THAT(log->allLines, ElementsAre("process: [CryptTKitSProvider-143] pCerts.count = " +
                                           std::to_string(numCertificates)));
  }

  std::shared_ptr<PKCS11_ASYMKEY_INFO> key;
  std::shared_ptr<PKCS11_CERTIFICATEOBJ_INFO> listedCertificate;
};

TEST_F(RecordLookup, FindsWhatTheListsHoldWithoutACallOrALine) {
  record().pAsymKeys()->insert(record().pAsymKeys()->begin(), nullptr);
  record().pCerts()->insert(record().pCerts()->begin(), nullptr);
  EXPECT_EQ(provider->getTokenKeyName(key), Text{u"1234567890ABCDEF_RSA_01_MyKey"});
  EXPECT_EQ(provider->getPublicKeyValue(key), Bytes{patternValue(256, 0xC5)});
  EXPECT_EQ(provider->getCertName(listedCertificate), Text{u"cert_MyKey_01"});
  EXPECT_EQ(provider->getCertID(listedCertificate), Text{u"01"});
  EXPECT_EQ(provider->getCertData(listedCertificate), Bytes{patternValue(700, 0x30)});
  EXPECT_EQ(provider->getKeyFromCertID(Text{u"01"}), key);
  EXPECT_THAT(script.callTexts(), IsEmpty());
  EXPECT_THAT(log->allLines, IsEmpty());
  expectUnknown(nullptr, nullptr, 2);
}

TEST_F(RecordLookup, GoesByIdentityNotByContent) {
  expectUnknown(key->mutableCopyWithZone(), listedCertificate->mutableCopyWithZone(), 1);
  for (int i = 0; i < 41; ++i) record().pCerts()->push_back(std::make_shared<PKCS11_CERTIFICATEOBJ_INFO>());
  expectUnknown(nullptr, std::make_shared<PKCS11_CERTIFICATEOBJ_INFO>(), 42);
}

TEST_F(RecordLookup, DoesNotKnowRecordsFromBeforeTheLastReadingOrSelection) {
  ASSERT_TRUE(provider->getTokenCerts(reader(), nullptr));
  expectUnknown(key, listedCertificate, 1);
  key = record().pAsymKeys()->at(0);
  listedCertificate = record().pCerts()->at(0);
  ASSERT_FALSE(provider->getSupportedTokenDescription(reader()).isEmpty());
  expectUnknown(key, listedCertificate, 0);
  EXPECT_EQ(provider->getKeyFromCertID(Text{u"01"}), nullptr);
}

TEST_F(RecordLookup, FindsNothingWithoutListsOrRecord) {
  record().setPAsymKeys(nullptr);
  record().setPCerts(nullptr);
  expectUnknown(key, listedCertificate, 0);
  framework().setP11ServiceInfo(nullptr);
  expectUnknown(key, listedCertificate, 0);
  EXPECT_EQ(provider->getKeyFromCertID(Text{u"01"}), nullptr);
}

TEST_F(RecordLookup, WritesNullInNamesForAMissingLabelOrIdentifierAndHandsOutNullMembersAsTheyAre) {
  const struct {
    Text label;
    Text id;
    Text name;
  } rows[] = {
      {Text{}, Text{u"01"}, Text{u"cert_(null)_01"}},
      {Text{}, Text{}, Text{u"cert_(null)_(null)"}},
      {Text{u""}, Text{u""}, Text{u"cert__"}},
      {Text{u"A\0\u00E9"sv}, Text{u"\0\1\u0080\u00FF"sv}, Text{u"cert_A\0\u00E9_\0\1\u0080\u00FF"sv}},
  };
  for (const auto& row : rows) {
    listedCertificate->setStrLabel(row.label);
    listedCertificate->setStrID(row.id);
    EXPECT_EQ(provider->getCertName(listedCertificate), row.name);
    EXPECT_EQ(provider->getCertID(listedCertificate), row.id.orNullMark());
  }
  key->setKeyName(Text{});
  key->setPKeyValue(Bytes{});
  listedCertificate->setPbCertData(Bytes{});
  EXPECT_TRUE(provider->getTokenKeyName(key).isNull());
  EXPECT_TRUE(provider->getPublicKeyValue(key).isNull());
  EXPECT_TRUE(provider->getCertData(listedCertificate).isNull());
}

TEST_F(RecordLookup, ComparesIdentifiersOfKeysCharacterForCharacterInTheirOrder) {
  record().pAsymKeys()->clear();
  addKey(Text{});
  EXPECT_EQ(provider->getKeyFromCertID(Text{u""}), nullptr);
  const std::u16string_view identifiers[] = {u"01"sv,   u"0"sv,    u"01 "sv,    u"aB"sv,     u"ab"sv, u"\0"sv,
                                             u"\0\1"sv, u"\0\0"sv, u"\u0080"sv, u"\u00FF"sv, u""sv};
  std::vector<std::shared_ptr<PKCS11_ASYMKEY_INFO>> keys;
  for (const auto id : identifiers) keys.push_back(addKey(Text{id}));
  for (const auto id : identifiers) addKey(Text{id});  // the first one counts
  for (std::size_t i = 0; i < keys.size(); ++i) {
    SCOPED_TRACE(i);
    EXPECT_EQ(provider->getKeyFromCertID(Text{identifiers[i]}), keys[i]);
  }
  for (const auto unknown : {u"1"sv, u"010"sv, u"AB"sv, u"\0\1\2"sv, u"\u0180"sv, u"?"sv}) {
    EXPECT_EQ(provider->getKeyFromCertID(Text{unknown}), nullptr);
  }
  EXPECT_EQ(provider->getKeyFromCertID(Text{}), nullptr);
}

}  // namespace
}  // namespace mirel::test
