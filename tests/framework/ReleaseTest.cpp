/// Releasing keys, certificates and records, and asking whether there is a key.

#include <climits>

#include "framework/FrameworkTest.h"

namespace mirel::test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::SizeIs;

/// A record with one key and one certificate that no card has.
std::shared_ptr<PKCS11_SERVICE_INFO> otherRecord() {
  const auto key = std::make_shared<PKCS11_ASYMKEY_INFO>();
  key->setKeyID(Text{u"id"});
  key->setKeyName(Text{u"name"});
  key->setPKeyValue(Bytes{{0x01}});
  const auto certificate = std::make_shared<PKCS11_CERTIFICATEOBJ_INFO>();
  certificate->setStrID(Text{u"id"});
  certificate->setStrLabel(Text{u"label"});
  certificate->setPbCertData(Bytes{{0x02}});
  const auto record = std::make_shared<PKCS11_SERVICE_INFO>();
  record->setPAsymKeys(std::make_shared<KeyRecords>(1, key));
  record->setPCerts(std::make_shared<CertificateRecords>(1, certificate));
  record->setM_keyIndex(1);
  record->setM_certIndex(1);
  return record;
}

class ReleaseTest : public FrameworkTest {
 protected:
  ReleaseTest() { openSessionAndEnumerate(); }
};

// ---- FreeAllKeyInfo and FreeAllCertInfo ----

class FreeAllKeyInfo : public ReleaseTest {};

TEST_F(FreeAllKeyInfo, EmptiesTheListOfKeysAndNoOther) {
  const auto stored = framework->p11ServiceInfo();
  const auto list = record().pAsymKeys();
  EXPECT_TRUE(framework->FreeAllKeyInfo());
  EXPECT_EQ(framework->p11ServiceInfo(), stored);
  EXPECT_EQ(record().pAsymKeys(), list);
  EXPECT_THAT(*list, IsEmpty());
  EXPECT_EQ(record().m_keyIndex(), 0);
  EXPECT_THAT(certificates(), SizeIs(1));
  EXPECT_EQ(record().m_certIndex(), 1);
  EXPECT_EQ(certificates().at(0)->pbCertData().size(), 700U);
}

TEST_F(FreeAllKeyInfo, TakesValueAndNameFromAKeyThatSomebodyHolds) {
  const auto key = keys().at(0);
  EXPECT_TRUE(framework->FreeAllKeyInfo());
  EXPECT_EQ(key->pKeyValue(), Bytes{});
  EXPECT_EQ(key->keyName(), Text{});
  EXPECT_EQ(key->keyID(), Text{u"01"});
  EXPECT_EQ(key->hPubKey(), kPublicKey);
}

TEST_F(FreeAllKeyInfo, LeavesTextsAndBytesThatSomebodyHolds) {
  const Text name = keys().at(0)->keyName();
  const Bytes value = keys().at(0)->pKeyValue();
  EXPECT_TRUE(framework->FreeAllKeyInfo());
  EXPECT_EQ(name, Text{u"1234567890ABCDEF_RSA_01_MyKey"});
  EXPECT_EQ(value.size(), 256U);
}

TEST_F(FreeAllKeyInfo, SucceedsWhenThereIsNothing) {
  record().setPAsymKeys(nullptr);
  record().setM_keyIndex(-1);
  EXPECT_TRUE(framework->FreeAllKeyInfo());
  EXPECT_EQ(record().m_keyIndex(), 0);
  framework->setP11ServiceInfo(nullptr);
  EXPECT_TRUE(framework->FreeAllKeyInfo());
}

TEST_F(FreeAllKeyInfo, PassesOverNullEntries) {
  record().pAsymKeys()->insert(record().pAsymKeys()->begin(), nullptr);
  EXPECT_TRUE(framework->FreeAllKeyInfo());
  EXPECT_THAT(keys(), IsEmpty());
}

TEST_F(FreeAllKeyInfo, WorksWhenAKeyIsListedTwice) {
  record().pAsymKeys()->push_back(keys().at(0));
  EXPECT_TRUE(framework->FreeAllKeyInfo());
  EXPECT_THAT(keys(), IsEmpty());
}

class FreeAllCertInfo : public ReleaseTest {};

TEST_F(FreeAllCertInfo, EmptiesTheListOfCertificatesAndNoOther) {
  const auto list = record().pCerts();
  EXPECT_TRUE(framework->FreeAllCertInfo());
  EXPECT_EQ(record().pCerts(), list);
  EXPECT_THAT(*list, IsEmpty());
  EXPECT_EQ(record().m_certIndex(), 0);
  EXPECT_THAT(keys(), SizeIs(1));
  EXPECT_EQ(record().m_keyIndex(), 1);
  EXPECT_EQ(keys().at(0)->keyName(), Text{u"1234567890ABCDEF_RSA_01_MyKey"});
}

TEST_F(FreeAllCertInfo, TakesTheDataFromACertificateThatSomebodyHolds) {
  const auto certificate = certificates().at(0);
  EXPECT_TRUE(framework->FreeAllCertInfo());
  EXPECT_EQ(certificate->pbCertData(), Bytes{});
  EXPECT_EQ(certificate->strID(), Text{u"01"});
  EXPECT_EQ(certificate->strLabel(), Text{u"MyKey"});
  EXPECT_EQ(certificate->hCert(), kCertificate);
}

TEST_F(FreeAllCertInfo, SucceedsWhenThereIsNothing) {
  record().setPCerts(nullptr);
  record().setM_certIndex(-1);
  EXPECT_TRUE(framework->FreeAllCertInfo());
  EXPECT_EQ(record().m_certIndex(), 0);
  framework->setP11ServiceInfo(nullptr);
  EXPECT_TRUE(framework->FreeAllCertInfo());
}

TEST_F(FreeAllCertInfo, PassesOverNullEntries) {
  record().pCerts()->insert(record().pCerts()->begin(), nullptr);
  EXPECT_TRUE(framework->FreeAllCertInfo());
  EXPECT_THAT(certificates(), IsEmpty());
}

// ---- FreeServiceInfo ----

class FreeServiceInfo : public ReleaseTest {};

TEST_F(FreeServiceInfo, LeavesTheFrameworkWithoutARecordWhenThatIsTheOneGiven) {
  const RetainedRecord retained{framework->p11ServiceInfo()};
  EXPECT_TRUE(framework->FreeServiceInfo(framework->p11ServiceInfo()));
  EXPECT_FALSE(framework->p11ServiceInfo());
  expectEmptied(retained);
  expectMembersReleased(retained);
  EXPECT_EQ(retained.record->hSession(), kFirstSession);
}

TEST_F(FreeServiceInfo, WorksWhenNobodyElseHoldsTheRecord) {
  std::weak_ptr<PKCS11_SERVICE_INFO> watched = framework->p11ServiceInfo();
  std::weak_ptr<PKCS11_ASYMKEY_INFO> watchedKey = keys().at(0);
  EXPECT_TRUE(framework->FreeServiceInfo(watched.lock()));
  EXPECT_TRUE(watched.expired());
  EXPECT_TRUE(watchedKey.expired());
}

TEST_F(FreeServiceInfo, MakesNoCall) {
  EXPECT_TRUE(framework->FreeServiceInfo(framework->p11ServiceInfo()));
  EXPECT_THAT(script.callTexts(), IsEmpty()) << "the session stays with the module";
}

TEST_F(FreeServiceInfo, EmptiesTheStoredRecordWhateverRecordIsGiven) {
  const RetainedRecord retained{framework->p11ServiceInfo()};
  const RetainedRecord other{otherRecord()};
  EXPECT_TRUE(framework->FreeServiceInfo(other.record));
  EXPECT_EQ(framework->p11ServiceInfo(), retained.record) << "it is still there";
  expectEmptied(retained);
  expectMembersReleased(retained);
  expectEmptied(other);
}

TEST_F(FreeServiceInfo, EmptiesACopyThatSharesTheLists) {
  const RetainedRecord retained{framework->p11ServiceInfo()};
  const RetainedRecord copy{record().mutableCopyWithZone()};
  EXPECT_TRUE(framework->FreeServiceInfo(copy.record));
  EXPECT_EQ(framework->p11ServiceInfo(), retained.record);
  expectEmptied(retained);
  expectEmptied(copy);
  expectMembersReleased(copy);
}

TEST_F(FreeServiceInfo, EmptiesTheStoredRecordForNoRecord) {
  const RetainedRecord retained{framework->p11ServiceInfo()};
  EXPECT_TRUE(framework->FreeServiceInfo(nullptr));
  EXPECT_EQ(framework->p11ServiceInfo(), retained.record);
  expectEmptied(retained);
}

TEST_F(FreeServiceInfo, EmptiesTheRecordGivenWithoutAStoredOne) {
  framework->setP11ServiceInfo(nullptr);
  const RetainedRecord other{otherRecord()};
  EXPECT_TRUE(framework->FreeServiceInfo(other.record));
  EXPECT_FALSE(framework->p11ServiceInfo());
  expectEmptied(other);
  EXPECT_TRUE(framework->FreeServiceInfo(nullptr));
}

TEST_F(FreeServiceInfo, SucceedsForARecordWithoutLists) {
  const auto empty = std::make_shared<PKCS11_SERVICE_INFO>();
  empty->setM_keyIndex(-1);
  empty->setM_certIndex(-1);
  framework->setP11ServiceInfo(empty);
  EXPECT_TRUE(framework->FreeServiceInfo(empty));
  EXPECT_EQ(empty->m_keyIndex(), 0);
  EXPECT_EQ(empty->m_certIndex(), 0);
}

TEST_F(FreeServiceInfo, LeavesEverythingElseToFailUntilARecordIsStored) {
  EXPECT_TRUE(framework->FreeServiceInfo(framework->p11ServiceInfo()));
  EXPECT_FALSE(framework->EnumCardKeys(reader()));
  EXPECT_FALSE(framework->CloseCardSession(reader(), nullptr));
  EXPECT_FALSE(framework->BindingKeyCert(Text{}, kPublicKey, nullptr));
  EXPECT_TRUE(framework->IsCardStateChanged(""));
  EXPECT_FALSE(framework->CheckEvent(framework->p11ServiceInfo(), Text{}));
  EXPECT_TRUE(framework->FreeServiceInfo(framework->p11ServiceInfo()));
  EXPECT_TRUE(framework->OpenCardSession(reader(), framework->p11ServiceInfo()));
  EXPECT_TRUE(framework->EnumCardKeys(reader()));
  EXPECT_THAT(keys(), SizeIs(1));
  leavesOpen({kFirstSession, kFirstSession + 1});
}

TEST_F(FreeServiceInfo, LogsNothing) {
  log->allLines.clear();
  EXPECT_TRUE(framework->FreeServiceInfo(framework->p11ServiceInfo()));
  EXPECT_THAT(log->allLines, IsEmpty());
}

// ---- GetKeyInfo ----

class GetKeyInfo : public ReleaseTest {
 protected:
  std::shared_ptr<PKCS11_ASYMKEY_INFO> key = std::make_shared<PKCS11_ASYMKEY_INFO>();
};

TEST_F(GetKeyInfo, TellsThatThereIsAKeyAndLeavesItsArgumentAlone) {
  key->setKeyName(Text{u"mine"});
  EXPECT_TRUE(framework->GetKeyInfo(framework->p11ServiceInfo(), 0, key));
  EXPECT_EQ(key->keyName(), Text{u"mine"});
  EXPECT_EQ(key->hPubKey(), 0U);
  EXPECT_TRUE(key->keyID().isNull());
  EXPECT_THAT(script.callTexts(), IsEmpty());
}

TEST_F(GetKeyInfo, LooksIntoTheRecordGiven) {
  const auto other = otherRecord();
  other->pAsymKeys()->push_back(other->pAsymKeys()->front());
  EXPECT_TRUE(framework->GetKeyInfo(other, 1, key));
}

TEST_F(GetKeyInfo, FailsWithoutKeysOrArguments) {
  const auto empty = std::make_shared<PKCS11_SERVICE_INFO>();
  EXPECT_FALSE(framework->GetKeyInfo(empty, 0, key));
  empty->setPAsymKeys(std::make_shared<KeyRecords>());
  EXPECT_FALSE(framework->GetKeyInfo(empty, 0, key));
  EXPECT_FALSE(framework->GetKeyInfo(nullptr, 0, key));
  EXPECT_FALSE(framework->GetKeyInfo(framework->p11ServiceInfo(), 0, nullptr));
}

TEST_F(GetKeyInfo, LooksAtTheIndexLast) {
  const auto empty = std::make_shared<PKCS11_SERVICE_INFO>();
  EXPECT_FALSE(framework->GetKeyInfo(empty, -1, key));
  EXPECT_FALSE(framework->GetKeyInfo(empty, 7, key));
  EXPECT_FALSE(framework->GetKeyInfo(framework->p11ServiceInfo(), -1, nullptr));
  EXPECT_FALSE(framework->GetKeyInfo(framework->p11ServiceInfo(), 7, nullptr));
}

TEST_F(GetKeyInfo, FailsForANullEntry) {
  record().pAsymKeys()->push_back(nullptr);
  EXPECT_FALSE(framework->GetKeyInfo(framework->p11ServiceInfo(), 1, key));
}

using GetKeyInfoDeathTest = GetKeyInfo;

TEST_F(GetKeyInfoDeathTest, EndsTheProcessForAnIndexOutsideTheList) {
  const struct {
    std::int32_t index;
    const char* message;
  } kRows[] = {
      {-1, "MirelCTKFramework GetKeyInfo: index -1 is outside the list of 1 keys"},
      {1, "MirelCTKFramework GetKeyInfo: index 1 is outside the list of 1 keys"},
      {INT_MAX, "MirelCTKFramework GetKeyInfo: index 2147483647 is outside the list of 1 keys"},
      {INT_MIN, "MirelCTKFramework GetKeyInfo: index -2147483648 is outside the list of 1 keys"},
  };
  for (const auto& row : kRows) {
    EXPECT_DEATH((void)framework->GetKeyInfo(framework->p11ServiceInfo(), row.index, key), row.message);
  }
}

}  // namespace
}  // namespace mirel::test
