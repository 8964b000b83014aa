#include "framework/FrameworkTest.h"

#include <stdexcept>
#include <utility>

namespace mirel::test {

RetainedRecord::RetainedRecord(std::shared_ptr<PKCS11_SERVICE_INFO> kept)
    : record{std::move(kept)},
      keys{record->pAsymKeys()},
      certificates{record->pCerts()},
      listedKeys{keys ? *keys : KeyRecords{}},
      listedCertificates{certificates ? *certificates : CertificateRecords{}} {}

void expectEmptied(const RetainedRecord& retained) {
  EXPECT_TRUE(!retained.keys || retained.keys->empty());
  EXPECT_TRUE(!retained.certificates || retained.certificates->empty());
  EXPECT_EQ(retained.record->pAsymKeys(), retained.keys);
  EXPECT_EQ(retained.record->pCerts(), retained.certificates);
  EXPECT_EQ(retained.record->m_keyIndex(), 0);
  EXPECT_EQ(retained.record->m_certIndex(), 0);
}

void expectReleased(const RetainedRecord& retained) {
  expectEmptied(retained);
  for (const auto& key : retained.listedKeys) {
    EXPECT_EQ(key->pKeyValue(), Bytes{});
    EXPECT_EQ(key->keyName(), Text{});
  }
  for (const auto& certificate : retained.listedCertificates) EXPECT_EQ(certificate->pbCertData(), Bytes{});
}

void expectUntouched(const RetainedRecord& retained) {
  ASSERT_TRUE(retained.keys && retained.certificates);
  EXPECT_EQ(*retained.keys, retained.listedKeys);
  EXPECT_EQ(*retained.certificates, retained.listedCertificates);
  EXPECT_EQ(retained.record->m_keyIndex(), 1);
  EXPECT_EQ(retained.record->m_certIndex(), 1);
  ASSERT_EQ(retained.listedKeys.size(), 1U);
  EXPECT_EQ(retained.listedKeys.front()->keyName(), Text{u"1234567890ABCDEF_RSA_01_MyKey"});
  EXPECT_EQ(retained.listedKeys.front()->pKeyValue().size(), 256U);
  ASSERT_EQ(retained.listedCertificates.size(), 1U);
  EXPECT_EQ(retained.listedCertificates.front()->pbCertData().size(), 700U);
}

void FrameworkTest::openService() {
  ASSERT_TRUE(framework->OpenFrameworkService());
  forgetAll();
}

void FrameworkTest::openSession() {
  ASSERT_NO_FATAL_FAILURE(openService());
  ASSERT_TRUE(framework->OpenCardSession(reader(), nullptr));
  forgetAll();
  leavesOpen({kFirstSession});
}

RetainedRecord FrameworkTest::openAndList() {
  openSession();
  EXPECT_TRUE(framework->EnumCardKeys(reader()));
  EXPECT_EQ(keys().size(), 1U);
  EXPECT_EQ(certificates().size(), 1U);
  forgetAll();
  return RetainedRecord{framework->p11ServiceInfo()};
}

RetainedRecord FrameworkTest::startAnew() {
  script.reset();
  newFramework();
  return openAndList();
}

void FrameworkTest::expectUsableAgain() {
  script.reset();
  script.setInitialised(true);
  ASSERT_TRUE(framework->EnumCards(reader()));
  ASSERT_TRUE(framework->OpenCardSession(reader(), nullptr));
  ASSERT_TRUE(framework->EnumCardKeys(reader()));
  ASSERT_EQ(keys().size(), 1U);
  EXPECT_EQ(keys().front()->keyName(), Text{u"1234567890ABCDEF_RSA_01_MyKey"});
  ASSERT_EQ(certificates().size(), 1U);
  EXPECT_EQ(certificates().front()->hCert(), kCertificate);
  // The first session was opened for the token information only.
  leavesOpen({kFirstSession + 1});
}

PKCS11_SERVICE_INFO& FrameworkTest::record() const {
  if (!framework->p11ServiceInfo()) throw std::logic_error{"the framework has no record"};
  return *framework->p11ServiceInfo();
}

const KeyRecords& FrameworkTest::keys() const {
  if (!record().pAsymKeys()) throw std::logic_error{"the record has no list of keys"};
  return *record().pAsymKeys();
}

const CertificateRecords& FrameworkTest::certificates() const {
  if (!record().pCerts()) throw std::logic_error{"the record has no list of certificates"};
  return *record().pCerts();
}

void FrameworkTest::setStoredDescription(std::string_view description) {
  CK_SLOT_INFO info = record().slotInfo();
  setField(info.slotDescription, description);
  record().setSlotInfo(info);
}

void FrameworkTest::setModulusLen(std::size_t size) {
  for (const CK_OBJECT_HANDLE key : {kPublicKey, kPrivateKey}) {
    script.object(key).attributes[CKA_MODULUS] = patternValue(size, 0xC5);
  }
}

void FrameworkTest::expectCounts(std::int32_t numKeys, std::int32_t numCertificates) {
  EXPECT_EQ(record().m_keyIndex(), numKeys);
  EXPECT_EQ(record().m_certIndex(), numCertificates);
}

void FrameworkTest::expectNewRecord(CK_SLOT_ID slot, CK_SESSION_HANDLE session, const CK_SESSION_INFO& info) {
  EXPECT_EQ(record().slotID(), slot);
  EXPECT_EQ(membersOf(record().slotInfo()), membersOf(slotInfo(slot)));
  EXPECT_EQ(membersOf(record().tokenInfo()), membersOf(script.card(slot).info));
  EXPECT_EQ(record().hSession(), session);
  EXPECT_EQ(membersOf(record().hSessionInfo()), membersOf(info));
  EXPECT_FALSE(record().pAsymKeys());
  EXPECT_FALSE(record().pCerts());
  expectCounts(0, 0);
}

CK_SLOT_INFO FrameworkTest::slotInfo(CK_SLOT_ID slot) {
  CK_SLOT_INFO info = script.slot(slot).info;
  info.flags |= CKF_TOKEN_PRESENT;
  return info;
}

void FrameworkTest::forgetAll() {
  script.forgetCalls();
  memory->reset();
  observer->events.clear();
  loader->calls.clear();
  log->allLines.clear();
  log->processLines.clear();
}

}  // namespace mirel::test
