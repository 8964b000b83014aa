/// Releasing keys, certificates and records, and asking whether there is a key.

#include <climits>

#include "framework/FrameworkTest.h"

namespace mirel::test {
namespace {

using ::testing::IsEmpty;
using ::testing::SizeIs;

class ReleaseTest : public FrameworkTest {
 protected:
  ReleaseTest() { (void)openAndList(); }

  /// A record with one key and one certificate that no card has.
  static std::shared_ptr<PKCS11_SERVICE_INFO> otherRecord() {
    auto other = std::make_shared<PKCS11_SERVICE_INFO>();
    other->setPAsymKeys(std::make_shared<KeyRecords>(1, std::make_shared<PKCS11_ASYMKEY_INFO>()));
    other->setPCerts(std::make_shared<CertificateRecords>(1, std::make_shared<PKCS11_CERTIFICATEOBJ_INFO>()));
    other->setM_keyIndex(1);
    other->setM_certIndex(1);
    return other;
  }
};

// ---- FreeAllKeyInfo and FreeAllCertInfo ----

using FreeAllKeyInfo = ReleaseTest;

TEST_F(FreeAllKeyInfo, EmptiesTheListOfKeysAndNoOther) {
  const auto stored = framework->p11ServiceInfo();
  const auto list = record().pAsymKeys();
  const auto key = keys().at(0);
  const Text name = key->keyName();
  const Bytes value = key->pKeyValue();
  list->insert(list->begin(), nullptr);
  list->push_back(list->at(1));  // listed twice
  EXPECT_TRUE(framework->FreeAllKeyInfo());
  EXPECT_EQ(framework->p11ServiceInfo(), stored);
  EXPECT_EQ(record().pAsymKeys(), list);
  EXPECT_THAT(*list, IsEmpty());
  EXPECT_EQ(record().m_keyIndex(), 0);
  EXPECT_THAT(certificates(), SizeIs(1));
  EXPECT_EQ(record().m_certIndex(), 1);
  EXPECT_EQ(certificates().at(0)->pbCertData().size(), 700U);
  // Value and name are taken from a key that somebody holds, but not from who holds them.
  EXPECT_EQ(key->pKeyValue(), Bytes{});
  EXPECT_EQ(key->keyName(), Text{});
  EXPECT_EQ(key->keyID(), Text{u"01"});
  EXPECT_EQ(key->hPubKey(), kPublicKey);
  EXPECT_EQ(name, Text{u"1234567890ABCDEF_RSA_01_MyKey"});
  EXPECT_EQ(value.size(), 256U);
}

using FreeAllCertInfo = ReleaseTest;

TEST_F(FreeAllCertInfo, EmptiesTheListOfCertificatesAndNoOther) {
  const auto list = record().pCerts();
  const auto certificate = certificates().at(0);
  list->insert(list->begin(), nullptr);
  EXPECT_TRUE(framework->FreeAllCertInfo());
  EXPECT_EQ(record().pCerts(), list);
  EXPECT_THAT(*list, IsEmpty());
  EXPECT_EQ(record().m_certIndex(), 0);
  EXPECT_THAT(keys(), SizeIs(1));
  EXPECT_EQ(record().m_keyIndex(), 1);
  EXPECT_EQ(keys().at(0)->keyName(), Text{u"1234567890ABCDEF_RSA_01_MyKey"});
  // The data is taken from a certificate that somebody holds.
  EXPECT_EQ(certificate->pbCertData(), Bytes{});
  EXPECT_EQ(certificate->strID(), Text{u"01"});
  EXPECT_EQ(certificate->strLabel(), Text{u"MyKey"});
  EXPECT_EQ(certificate->hCert(), kCertificate);
}

TEST_F(FreeAllCertInfo, SucceedsLikeTheOtherWhenThereIsNothing) {
  record().setPAsymKeys(nullptr);
  record().setPCerts(nullptr);
  record().setM_keyIndex(-1);
  record().setM_certIndex(-1);
  EXPECT_TRUE(framework->FreeAllKeyInfo());
  EXPECT_TRUE(framework->FreeAllCertInfo());
  expectCounts(0, 0);
  framework->setP11ServiceInfo(nullptr);
  EXPECT_TRUE(framework->FreeAllKeyInfo());
  EXPECT_TRUE(framework->FreeAllCertInfo());
}

// ---- FreeServiceInfo ----

using FreeServiceInfo = ReleaseTest;

TEST_F(FreeServiceInfo, LeavesTheFrameworkWithoutARecordWhenThatIsTheOneGiven) {
  const RetainedRecord retained{framework->p11ServiceInfo()};
  EXPECT_TRUE(framework->FreeServiceInfo(framework->p11ServiceInfo()));
  EXPECT_FALSE(framework->p11ServiceInfo());
  expectReleased(retained);
  EXPECT_EQ(retained.record->hSession(), kFirstSession);
  EXPECT_THAT(script.callTexts(), IsEmpty()) << "the session stays with the module";
  EXPECT_THAT(log->allLines, IsEmpty());
}

TEST_F(FreeServiceInfo, WorksWhenNobodyElseHoldsTheRecord) {
  const std::weak_ptr<PKCS11_SERVICE_INFO> watched = framework->p11ServiceInfo();
  const std::weak_ptr<PKCS11_ASYMKEY_INFO> watchedKey = keys().at(0);
  EXPECT_TRUE(framework->FreeServiceInfo(watched.lock()));
  EXPECT_TRUE(watched.expired());
  EXPECT_TRUE(watchedKey.expired());
}

TEST_F(FreeServiceInfo, EmptiesTheStoredRecordWhateverRecordIsGiven) {
  const std::function<std::shared_ptr<PKCS11_SERVICE_INFO>()> givenOnes[] = {
      [] { return otherRecord(); },
      [this] { return record().mutableCopyWithZone(); },  // which shares the lists
      [] { return nullptr; },
  };
  for (const auto& makeGiven : givenOnes) {
    SCOPED_TRACE(&makeGiven - givenOnes);
    const RetainedRecord retained = startAnew();
    const auto given = makeGiven();
    EXPECT_TRUE(framework->FreeServiceInfo(given));
    EXPECT_EQ(framework->p11ServiceInfo(), retained.record) << "it is still there";
    expectReleased(retained);
    if (given) expectEmptied(RetainedRecord{given});
  }
}

TEST_F(FreeServiceInfo, NeedsNoStoredRecordAndNoLists) {
  framework->setP11ServiceInfo(nullptr);
  const auto other = otherRecord();
  EXPECT_TRUE(framework->FreeServiceInfo(other));
  expectEmptied(RetainedRecord{other});
  EXPECT_TRUE(framework->FreeServiceInfo(nullptr));
  const auto empty = std::make_shared<PKCS11_SERVICE_INFO>();
  empty->setM_keyIndex(-1);
  empty->setM_certIndex(-1);
  EXPECT_TRUE(framework->FreeServiceInfo(empty));
  EXPECT_EQ(empty->m_keyIndex(), 0);
  EXPECT_EQ(empty->m_certIndex(), 0);
}

// ---- GetKeyInfo ----

class GetKeyInfo : public ReleaseTest {
 protected:
  std::shared_ptr<PKCS11_ASYMKEY_INFO> key = std::make_shared<PKCS11_ASYMKEY_INFO>();
};

TEST_F(GetKeyInfo, TellsThatTheRecordGivenHasAKeyAndLeavesItsArgumentAlone) {
  key->setKeyName(Text{u"mine"});
  EXPECT_TRUE(framework->GetKeyInfo(framework->p11ServiceInfo(), 0, key));
  EXPECT_EQ(key->keyName(), Text{u"mine"});
  EXPECT_EQ(key->hPubKey(), 0U);
  EXPECT_THAT(script.callTexts(), IsEmpty());
  const auto other = otherRecord();
  other->pAsymKeys()->push_back(key);
  other->pAsymKeys()->push_back(nullptr);
  EXPECT_TRUE(framework->GetKeyInfo(other, 1, key));
  EXPECT_FALSE(framework->GetKeyInfo(other, 2, key)) << "a null entry is no key";
}

TEST_F(GetKeyInfo, FailsWithoutKeysOrArgumentsWhateverTheIndex) {
  const auto empty = std::make_shared<PKCS11_SERVICE_INFO>();
  const auto emptyList = std::make_shared<PKCS11_SERVICE_INFO>();
  emptyList->setPAsymKeys(std::make_shared<KeyRecords>());
  for (const std::int32_t index : {0, -1, 7}) {
    EXPECT_FALSE(framework->GetKeyInfo(empty, index, key));
    EXPECT_FALSE(framework->GetKeyInfo(emptyList, index, key));
    EXPECT_FALSE(framework->GetKeyInfo(nullptr, index, key));
    EXPECT_FALSE(framework->GetKeyInfo(framework->p11ServiceInfo(), index, nullptr));
  }
}

using GetKeyInfoDeathTest = GetKeyInfo;

TEST_F(GetKeyInfoDeathTest, EndsTheProcessForAnIndexOutsideTheList) {
  for (const std::int32_t index : {-1, 1, INT_MAX, INT_MIN}) {
    EXPECT_DEATH(
        (void)framework->GetKeyInfo(framework->p11ServiceInfo(), index, key),
        "MirelCTKFramework GetKeyInfo: index " + std::to_string(index) + " is outside the list of 1 keys");
  }
}

}  // namespace
}  // namespace mirel::test
