#include "framework/FrameworkTest.h"

#include <iomanip>
#include <stdexcept>
#include <utility>

#include "platform/Log.h"

namespace mirel {

void PrintTo(const Text& text, std::ostream* out) {
  *out << (text.isNull() ? "null" : '"' + printableLine(text.toUtf8()) + '"');
}

void PrintTo(const Bytes& bytes, std::ostream* out) {
  if (bytes.isNull()) *out << "null";
  *out << std::hex << std::setfill('0');
  for (const std::uint8_t byte : bytes.view()) *out << std::setw(2) << unsigned{byte};
  *out << std::dec;
}

}  // namespace mirel

namespace mirel::test {

Text reader() { return Text{u"Reader A 00"}; }

Bytes bytesLike(const Value& value) { return Bytes{value}; }

std::vector<CK_SESSION_HANDLE> only(CK_SESSION_HANDLE handle) { return {handle}; }

// ---- The fixture ----

void FrameworkTest::newFramework() {
  observer->events.clear();
  framework = std::make_unique<MirelCTKFramework>(services());
}

void FrameworkTest::useModule(const char* path) {
  otherHomes_.push_back(std::make_unique<ModuleHome>(path));
  user = std::make_shared<FakeUserDirectory>("alice", otherHomes_.back()->home());
  newFramework();
}

void FrameworkTest::openService() {
  ASSERT_TRUE(framework->OpenFrameworkService());
  script.forgetCalls();
}

void FrameworkTest::openSession() {
  ASSERT_NO_FATAL_FAILURE(openService());
  ASSERT_TRUE(framework->OpenCardSession(reader(), nullptr));
  script.forgetCalls();
  leavesOpen({kFirstSession});
}

void FrameworkTest::openSessionAndEnumerate() {
  ASSERT_NO_FATAL_FAILURE(openSession());
  ASSERT_TRUE(framework->EnumCardKeys(reader()));
  ASSERT_EQ(keys().size(), 1U);
  ASSERT_EQ(certificates().size(), 1U);
  script.forgetCalls();
}

void FrameworkTest::expectUsable() {
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

void FrameworkTest::failEachCall(CK_RV code, std::size_t numCalls,
                                 const std::function<void(FailPoint&)>& round) {
  forEachFailingCall(script, code, numCalls, round, [this] { expectUsable(); });
}

void FrameworkTest::failEachAllocation(std::size_t numAllocations,
                                       const std::function<void(FailPoint&)>& round) {
  forEachFailingAllocation(script, *memory, numAllocations, round, [this] { expectUsable(); });
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

// ---- Retained records ----

RetainedRecord::RetainedRecord(std::shared_ptr<PKCS11_SERVICE_INFO> kept)
    : record{std::move(kept)},
      keys{record->pAsymKeys()},
      certificates{record->pCerts()},
      listedKeys{keys ? *keys : KeyRecords{}},
      listedCertificates{certificates ? *certificates : CertificateRecords{}} {}

void expectEmptied(const RetainedRecord& retained) {
  if (retained.keys) {
    EXPECT_TRUE(retained.keys->empty());
  }
  if (retained.certificates) {
    EXPECT_TRUE(retained.certificates->empty());
  }
  EXPECT_EQ(retained.record->pAsymKeys(), retained.keys);
  EXPECT_EQ(retained.record->pCerts(), retained.certificates);
  EXPECT_EQ(retained.record->m_keyIndex(), 0);
  EXPECT_EQ(retained.record->m_certIndex(), 0);
}

void expectMembersReleased(const RetainedRecord& retained) {
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

// ---- Structures ----

void expectSlotInfo(const CK_SLOT_INFO& info, const Slot& slot) {
  EXPECT_EQ(fieldText(info.slotDescription), fieldText(slot.info.slotDescription));
  EXPECT_EQ(fieldText(info.manufacturerID), fieldText(slot.info.manufacturerID));
  EXPECT_EQ(info.flags, slot.info.flags | CKF_TOKEN_PRESENT);
  EXPECT_EQ(info.hardwareVersion.major, slot.info.hardwareVersion.major);
  EXPECT_EQ(info.hardwareVersion.minor, slot.info.hardwareVersion.minor);
  EXPECT_EQ(info.firmwareVersion.major, slot.info.firmwareVersion.major);
  EXPECT_EQ(info.firmwareVersion.minor, slot.info.firmwareVersion.minor);
}

void expectTokenInfo(const CK_TOKEN_INFO& info, const CK_TOKEN_INFO& expected) {
  EXPECT_EQ(fieldText(info.label), fieldText(expected.label));
  EXPECT_EQ(fieldText(info.manufacturerID), fieldText(expected.manufacturerID));
  EXPECT_EQ(fieldText(info.model), fieldText(expected.model));
  EXPECT_EQ(fieldText(info.serialNumber), fieldText(expected.serialNumber));
  EXPECT_EQ(info.flags, expected.flags);
  EXPECT_EQ(info.ulMaxPinLen, expected.ulMaxPinLen);
  EXPECT_EQ(info.ulMinPinLen, expected.ulMinPinLen);
  EXPECT_EQ(info.ulTotalPublicMemory, expected.ulTotalPublicMemory);
  EXPECT_EQ(info.ulFreePrivateMemory, expected.ulFreePrivateMemory);
  EXPECT_EQ(info.hardwareVersion.minor, expected.hardwareVersion.minor);
  EXPECT_EQ(info.firmwareVersion.minor, expected.firmwareVersion.minor);
  EXPECT_EQ(fieldText(info.utcTime), fieldText(expected.utcTime));
}

void expectSessionInfo(const CK_SESSION_INFO& info, const CK_SESSION_INFO& expected) {
  EXPECT_EQ(info.slotID, expected.slotID);
  EXPECT_EQ(info.state, expected.state);
  EXPECT_EQ(info.flags, expected.flags);
  EXPECT_EQ(info.ulDeviceError, expected.ulDeviceError);
}

}  // namespace mirel::test
