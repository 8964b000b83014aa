/// The queries that read the card's objects.

#include "provider/ProviderTest.h"

namespace mirel::test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::SizeIs;

class TokenObjects : public ProviderTest {
 protected:
  TokenObjects() { openSession(); }

  static Object rsaKey(std::string_view id, std::string_view label = "Key") {
    return rsaPublicKey(bytesOf(id), bytesOf(label), patternValue(128, 1));
  }
};

/// Reading the default card's objects: 28 calls, of which call 7 ends the search for certificates and
/// calls 15 to 17 ask for the length of the key's modulus.
constexpr std::size_t kNumCalls = 28;

enum class Ending { kFails, kKeyLeftOut, kSucceeds };
Ending endingOf(const FailPoint& point) {
  if (point.n() >= kNumCalls) return Ending::kSucceeds;
  if (point.times() == Times::kFromThenOn) return Ending::kFails;
  if (point.n() == 7) return Ending::kSucceeds;
  return point.n() >= 15 && point.n() <= 17 ? Ending::kKeyLeftOut : Ending::kFails;
}

// ---- getTokenPubKeys ----

class GetTokenPubKeys : public TokenObjects {};

TEST_F(GetTokenPubKeys, AppendsTheFrameworksOwnRecordsInTheirOrder) {
  script.addObject(rsaKey("02", "Second"));
  const auto before = std::make_shared<PKCS11_ASYMKEY_INFO>();
  CryptTKitSProvider::KeyList keys{before};
  EXPECT_TRUE(provider->getTokenPubKeys(reader(), &keys));
  ASSERT_THAT(*record().pAsymKeys(), SizeIs(2));
  EXPECT_THAT(keys, ElementsAre(before, record().pAsymKeys()->at(0), record().pAsymKeys()->at(1)));
}

TEST_F(GetTokenPubKeys, LeavesTheNamesAsTheyAre) {
  const auto keys = listedKeys();
  ASSERT_THAT(keys, SizeIs(1));
  EXPECT_EQ(keys[0]->keyName(), Text{u"1234567890ABCDEF_RSA_01_MyKey"});
}

TEST_F(GetTokenPubKeys, OnlyReadsTheCardWithoutAList) {
  EXPECT_TRUE(provider->getTokenPubKeys(reader(), nullptr));
  EXPECT_EQ(script.countOf("C_FindObjectsInit"), 2U);
  EXPECT_EQ(record().m_keyIndex(), 1);
  script.failCallOf("C_FindObjectsInit", 0, CKR_DEVICE_ERROR);
  EXPECT_FALSE(provider->getTokenPubKeys(reader(), nullptr));
}

TEST_F(GetTokenPubKeys, ReadsTheSelectedCardWhateverTheReadersName) {
  EXPECT_TRUE(provider->getTokenPubKeys(Text{u"Reader C"}, nullptr));
  EXPECT_TRUE(provider->getTokenPubKeys(Text{}, nullptr));
}

TEST_F(GetTokenPubKeys, AppendsNothingForACardWithoutKeys) {
  emptyTheCard();
  CryptTKitSProvider::KeyList keys;
  EXPECT_TRUE(provider->getTokenPubKeys(reader(), &keys));
  EXPECT_THAT(keys, IsEmpty());
}

TEST_F(GetTokenPubKeys, ReadsAnewEachTime) {
  const auto first = listedKeys();
  script.addObject(rsaKey("02"));
  const auto second = listedKeys();
  EXPECT_THAT(first, SizeIs(1));
  ASSERT_THAT(second, SizeIs(2));
  EXPECT_NE(second[0], first[0]);
}

TEST_F(GetTokenPubKeys, ListsMoreThanTwentyKeys) {
  for (const std::size_t numKeys : {20U, 21U, 40U, 160U, 161U}) {
    SCOPED_TRACE(numKeys);
    emptyTheCard();
    for (std::size_t i = 0; i < numKeys; ++i) script.addObject(rsaKey(std::to_string(i)));
    EXPECT_THAT(listedKeys(), SizeIs(std::min<std::size_t>(numKeys, 160)));
  }
}

TEST_F(GetTokenPubKeys, CanAppendToTheListThatTheFrameworkReplaces) {
  const auto old = listedKeys();
  const auto list = record().pAsymKeys();
  EXPECT_TRUE(provider->getTokenPubKeys(reader(), list.get()));
  EXPECT_NE(record().pAsymKeys(), list);
  EXPECT_THAT(*list, ElementsAre(record().pAsymKeys()->at(0))) << "the reading has emptied it";
}

TEST_F(GetTokenPubKeys, CanAppendToTheFrameworksOwnList) {
  // A card without keys leaves the framework's list in its place, emptied.
  const auto old = listedKeys();
  const auto list = record().pAsymKeys();
  emptyTheCard();
  EXPECT_TRUE(provider->getTokenPubKeys(reader(), list.get()));
  EXPECT_EQ(record().pAsymKeys(), list);
  EXPECT_THAT(*list, IsEmpty());
}

TEST_F(GetTokenPubKeys, FailsWithoutASession) {
  ASSERT_FALSE(provider->getSupportedTokenDescription(reader()).isEmpty());
  CryptTKitSProvider::KeyList keys;
  EXPECT_FALSE(provider->getTokenPubKeys(reader(), &keys));
  EXPECT_THAT(keys, IsEmpty());
}

TEST_F(GetTokenPubKeys, FailsAsReadingTheObjectsDoes) {
  failEachCall(CKR_DEVICE_ERROR, kNumCalls, [&](FailPoint& point) {
    newProvider();
    openSession();
    const auto old = listedKeys();
    ASSERT_THAT(old, SizeIs(1));
    script.forgetCalls();
    CryptTKitSProvider::KeyList keys{nullptr};
    point.arm();
    const bool read = provider->getTokenPubKeys(reader(), &keys);
    const Ending ending = endingOf(point);
    EXPECT_EQ(read, ending != Ending::kFails);
    EXPECT_THAT(keys, SizeIs(ending == Ending::kSucceeds ? 2 : 1));
    EXPECT_EQ(framework().p11ServiceInfo() != nullptr, read);
    EXPECT_EQ(provider->getTokenKeyName(old[0]), Text{u""}) << "it is from before";
    EXPECT_EQ(script.openSessions(), std::vector<CK_SESSION_HANDLE>{kCardSession});
    EXPECT_THAT(log->allLines, IsEmpty());
  });
}

// ---- getTokenCerts ----

class GetTokenCerts : public TokenObjects {};

TEST_F(GetTokenCerts, AppendsTheFrameworksOwnRecordsInTheirOrder) {
  script.addObject(certificate(bytesOf("01"), bytesOf("Second"), patternValue(100, 1)));
  const auto before = std::make_shared<PKCS11_CERTIFICATEOBJ_INFO>();
  CryptTKitSProvider::CertificateList certificates{before};
  EXPECT_TRUE(provider->getTokenCerts(reader(), &certificates));
  ASSERT_THAT(*record().pCerts(), SizeIs(2));
  EXPECT_THAT(certificates, ElementsAre(before, record().pCerts()->at(0), record().pCerts()->at(1)));
}

TEST_F(GetTokenCerts, AppendsACertificateOnceForEachOfItsKeys) {
  script.addObject(rsaKey("01"));
  const auto certificates = listedCertificates();
  ASSERT_THAT(certificates, SizeIs(2));
  EXPECT_NE(certificates[0], certificates[1]);
  EXPECT_EQ(certificates[0]->hCert(), certificates[1]->hCert());
}

TEST_F(GetTokenCerts, PassesOverACertificateWithoutAKey) {
  script.addObject(certificate(bytesOf("02"), bytesOf("Alone"), patternValue(100, 1)));
  EXPECT_THAT(listedCertificates(), SizeIs(1));
}

TEST_F(GetTokenCerts, OnlyReadsTheCardWithoutAList) {
  EXPECT_TRUE(provider->getTokenCerts(reader(), nullptr));
  EXPECT_EQ(script.countOf("C_FindObjectsInit"), 2U);
  EXPECT_EQ(record().m_certIndex(), 1);
  script.failCallOf("C_FindObjectsInit", 0, CKR_DEVICE_ERROR);
  EXPECT_FALSE(provider->getTokenCerts(reader(), nullptr));
}

TEST_F(GetTokenCerts, ReadsTheSelectedCardWhateverTheReadersName) {
  const CK_SLOT_ID other = script.addSlot("Reader B 01", emptyCard("OTHERCARD", "FEDCBA0987654321"));
  for (const Text& name : {Text{u"Reader B 01"}, Text{u"Reader C"}, Text{u""}, Text{}}) {
    script.forgetCalls();
    CryptTKitSProvider::CertificateList certificates;
    EXPECT_TRUE(provider->getTokenCerts(name, &certificates));
    ASSERT_THAT(certificates, SizeIs(1));
    EXPECT_EQ(certificates[0]->strLabel(), Text{u"MyKey"});
    // No other card is selected on the way.
    EXPECT_EQ(script.countOf("C_GetSlotList"), 0U);
    EXPECT_NE(record().slotID(), other);
  }
}

TEST_F(GetTokenCerts, AppendsNothingForAnEmptyCard) {
  emptyTheCard();
  CryptTKitSProvider::CertificateList certificates;
  EXPECT_TRUE(provider->getTokenCerts(reader(), &certificates));
  EXPECT_THAT(certificates, IsEmpty());
}

/// Such a certificate has no length that could be read, which fails the reading as a whole.
TEST_F(GetTokenCerts, FailsForACardWithACertificateWithoutAValue) {
  const Object whole = certificate(bytesOf("01"), bytesOf("Second"), patternValue(100, 1));
  for (const Object& valueless : {whole.with(CKA_VALUE, {}), whole.without(CKA_VALUE)}) {
    newProvider();
    script.reset();
    openSession();
    script.addObject(valueless);
    CryptTKitSProvider::CertificateList certificates;
    EXPECT_FALSE(provider->getTokenCerts(reader(), &certificates));
    EXPECT_THAT(certificates, IsEmpty());
    EXPECT_FALSE(framework().p11ServiceInfo());
    expectUsable();
  }
}

TEST_F(GetTokenCerts, ListsMoreThanTwentyCertificates) {
  for (const std::size_t numObjects : {20U, 21U, 40U, 160U, 161U}) {
    SCOPED_TRACE(numObjects);
    emptyTheCard();
    for (std::size_t i = 0; i < numObjects; ++i) {
      const std::string id = std::to_string(i);
      script.addObject(rsaKey(id));
      script.addObject(certificate(bytesOf(id), bytesOf("C"), patternValue(100, 1)));
    }
    EXPECT_THAT(listedCertificates(), SizeIs(std::min<std::size_t>(numObjects, 160)));
  }
}

TEST_F(GetTokenCerts, CanAppendToTheListThatTheFrameworkReplaces) {
  const auto old = listedCertificates();
  const auto list = record().pCerts();
  EXPECT_TRUE(provider->getTokenCerts(reader(), list.get()));
  EXPECT_NE(record().pCerts(), list);
  EXPECT_THAT(*list, ElementsAre(record().pCerts()->at(0))) << "the reading has emptied it";
}

TEST_F(GetTokenCerts, CanAppendToTheFrameworksOwnList) {
  const auto old = listedCertificates();
  const auto list = record().pCerts();
  emptyTheCard();
  EXPECT_TRUE(provider->getTokenCerts(reader(), list.get()));
  EXPECT_EQ(record().pCerts(), list);
  EXPECT_THAT(*list, IsEmpty());
}

TEST_F(GetTokenCerts, FailsAfterTheCardWasPulled) {
  script.pullCard();
  CryptTKitSProvider::CertificateList certificates;
  EXPECT_FALSE(provider->getTokenCerts(reader(), &certificates));
  EXPECT_THAT(certificates, IsEmpty());
  leavesOpen({});
}

TEST_F(GetTokenCerts, FailsAsReadingTheObjectsDoes) {
  failEachCall(CKR_DEVICE_ERROR, kNumCalls, [&](FailPoint& point) {
    newProvider();
    openSession();
    const auto old = listedCertificates();
    ASSERT_THAT(old, SizeIs(1));
    script.forgetCalls();
    CryptTKitSProvider::CertificateList certificates{nullptr};
    point.arm();
    const bool read = provider->getTokenCerts(reader(), &certificates);
    const Ending ending = endingOf(point);
    EXPECT_EQ(read, ending != Ending::kFails);
    EXPECT_THAT(certificates, SizeIs(ending == Ending::kSucceeds ? 2 : 1));
    EXPECT_EQ(framework().p11ServiceInfo() != nullptr, read);
    EXPECT_TRUE(provider->getCertData(old[0]).isNull()) << "it is from before";
    EXPECT_EQ(script.openSessions(), std::vector<CK_SESSION_HANDLE>{kCardSession});
    EXPECT_THAT(log->allLines, IsEmpty());
  });
}

}  // namespace
}  // namespace mirel::test
