/// The records that the bridge and the framework fill.

#include <gtest/gtest.h>

#include <cstring>
#include <numeric>

#include "bridge/PKCS11_ASYMKEY_INFO.h"
#include "bridge/PKCS11_CERTIFICATEOBJ_INFO.h"
#include "bridge/PKCS11_SERVICE_INFO.h"
#include "support/Values.h"

namespace mirel::test {
namespace {

/// A structure of which every byte, padding included, has a value that its neighbours do not have.
template <typename Structure>
Structure patterned(unsigned char seed) {
  unsigned char bytes[sizeof(Structure)];
  std::iota(std::begin(bytes), std::end(bytes), seed);
  Structure structure;
  std::memcpy(&structure, bytes, sizeof structure);
  return structure;
}

template <typename Structure>
bool sameBytes(const Structure& a, const Structure& b) {
  return std::memcmp(&a, &b, sizeof a) == 0;
}

void expectNew(const PKCS11_SERVICE_INFO& record) {
  EXPECT_EQ(record.hSession(), 0U);
  EXPECT_TRUE(sameBytes(record.hSessionInfo(), CK_SESSION_INFO{}));
  EXPECT_TRUE(sameBytes(record.tokenInfo(), CK_TOKEN_INFO{}));
  EXPECT_EQ(record.slotID(), 0U);
  EXPECT_TRUE(sameBytes(record.slotInfo(), CK_SLOT_INFO{}));
  EXPECT_EQ(record.m_keyIndex(), 0);
  EXPECT_EQ(record.m_certIndex(), 0);
  EXPECT_EQ(record.pAsymKeys(), nullptr);
  EXPECT_EQ(record.pCerts(), nullptr);
}

void expectNew(const PKCS11_ASYMKEY_INFO& record) {
  EXPECT_EQ(record.hPubKey(), 0U);
  EXPECT_EQ(record.hPriKey(), 0U);
  EXPECT_TRUE(record.keyID().isNull());
  EXPECT_TRUE(record.keyName().isNull());
  EXPECT_TRUE(record.pKeyValue().isNull());
}

void expectNew(const PKCS11_CERTIFICATEOBJ_INFO& record) {
  EXPECT_EQ(record.hCert(), 0U);
  EXPECT_TRUE(record.strID().isNull());
  EXPECT_TRUE(record.strLabel().isNull());
  EXPECT_TRUE(record.pbCertData().isNull());
}

template <typename Record>
class NewRecord : public ::testing::Test {};
using AllRecords = ::testing::Types<PKCS11_ASYMKEY_INFO, PKCS11_CERTIFICATEOBJ_INFO, PKCS11_SERVICE_INFO>;
TYPED_TEST_SUITE(NewRecord, AllRecords);

TYPED_TEST(NewRecord, HasZerosAndNullMembersAndSoHasItsCopy) {
  expectNew(TypeParam{});
  expectNew(*TypeParam{}.mutableCopyWithZone());
}

/// A copy has the same text or bytes, without copying their content.
template <typename Record, typename Member>
void expectShared(const Record& source, const Record& copy, Member (Record::*get)() const noexcept,
                  const Member& expected) {
  EXPECT_EQ((copy.*get)(), expected);
  EXPECT_TRUE((copy.*get)().sharesStorageWith((source.*get)()));
}

TEST(KeyRecord, CopyHasTheSameValuesAndKeepsThemWhenTheSourceChanges) {
  using Record = PKCS11_ASYMKEY_INFO;
  Record source;
  source.setHPubKey(21);
  source.setHPriKey(kAllOnes);
  source.setKeyID(Text{u"id"});
  source.setKeyName(Text{u"name"});
  source.setPKeyValue(Bytes{{1, 2, 3}});
  const auto copy = source.mutableCopyWithZone();
  EXPECT_EQ(copy->hPriKey(), kAllOnes);
  expectShared(source, *copy, &Record::keyID, Text{u"id"});
  expectShared(source, *copy, &Record::keyName, Text{u"name"});
  expectShared(source, *copy, &Record::pKeyValue, Bytes{{1, 2, 3}});
  source.setHPubKey(22);
  source.setKeyID(Text{});
  EXPECT_TRUE(source.keyID().isNull());
  EXPECT_EQ(copy->hPubKey(), 21U);
  EXPECT_EQ(copy->keyID(), Text{u"id"});
}

TEST(KeyRecord, KeepsNullAndEmptyApartThroughACopy) {
  PKCS11_ASYMKEY_INFO source;
  source.setKeyID(Text{u""});
  source.setPKeyValue(Bytes{std::vector<std::uint8_t>{}});
  const auto copy = source.mutableCopyWithZone();
  EXPECT_EQ(copy->keyID(), Text{u""});
  EXPECT_TRUE(copy->keyName().isNull());
  EXPECT_FALSE(copy->pKeyValue().isNull());
}

TEST(CertificateRecord, CopyHasTheSameValues) {
  using Record = PKCS11_CERTIFICATEOBJ_INFO;
  Record source;
  source.setHCert(23);
  source.setStrID(Text{u"id"});
  source.setStrLabel(Text{u""});
  source.setPbCertData(Bytes{{0x30, 0x00}});
  const auto copy = source.mutableCopyWithZone();
  EXPECT_EQ(copy->hCert(), 23U);
  expectShared(source, *copy, &Record::strID, Text{u"id"});
  expectShared(source, *copy, &Record::strLabel, Text{u""});
  expectShared(source, *copy, &Record::pbCertData, Bytes{{0x30, 0x00}});
}

TEST(CardRecord, CopyHasTheSameValues) {
  PKCS11_SERVICE_INFO source;
  source.setHSession(kAllOnes);
  source.setHSessionInfo(patterned<CK_SESSION_INFO>(1));
  source.setTokenInfo(patterned<CK_TOKEN_INFO>(2));
  source.setSlotID(kAllOnes);
  source.setSlotInfo(patterned<CK_SLOT_INFO>(3));
  source.setM_keyIndex(-1);
  source.setM_certIndex(-2);
  const auto copy = source.mutableCopyWithZone();
  EXPECT_EQ(copy->hSession(), kAllOnes);
  EXPECT_TRUE(sameBytes(copy->hSessionInfo(), patterned<CK_SESSION_INFO>(1)));
  EXPECT_TRUE(sameBytes(copy->tokenInfo(), patterned<CK_TOKEN_INFO>(2)));
  EXPECT_EQ(copy->slotID(), kAllOnes);
  EXPECT_TRUE(sameBytes(copy->slotInfo(), patterned<CK_SLOT_INFO>(3)));
  EXPECT_EQ(copy->m_keyIndex(), -1);
  EXPECT_EQ(copy->m_certIndex(), -2);
}

TEST(CardRecord, SharesItsArraysWithItsCopyUntilOneGetsAnother) {
  PKCS11_SERVICE_INFO source;
  source.setPAsymKeys(std::make_shared<KeyRecords>());
  EXPECT_EQ(source.mutableCopyWithZone()->pCerts(), nullptr) << "no array and an empty one are kept apart";
  source.setPCerts(std::make_shared<CertificateRecords>());
  const auto copy = source.mutableCopyWithZone();
  EXPECT_EQ(copy->pAsymKeys(), source.pAsymKeys());
  EXPECT_EQ(copy->pCerts(), source.pCerts());
  copy->setPAsymKeys(std::make_shared<KeyRecords>(1));
  EXPECT_TRUE(source.pAsymKeys()->empty());
  copy->setPAsymKeys(nullptr);
  EXPECT_NE(source.pAsymKeys(), nullptr);
}

TEST(CardRecord, HandsStructuresOutAndTakesThemInByValue) {
  PKCS11_SERVICE_INFO record;
  CK_SESSION_INFO info{1, 2, 3, 4};
  record.setHSessionInfo(info);
  info.state = 99;
  EXPECT_EQ(record.hSessionInfo().state, 2U);
  info = record.hSessionInfo();
  info.flags = 7;
  EXPECT_EQ(record.hSessionInfo().flags, 3U);
}

TEST(CardRecord, ReleasesItsArraysWithItsLastCopy) {
  std::shared_ptr<PKCS11_SERVICE_INFO> copy;
  std::weak_ptr<PKCS11_ASYMKEY_INFO> key;
  {
    PKCS11_SERVICE_INFO source;
    source.setPAsymKeys(std::make_shared<KeyRecords>());
    source.pAsymKeys()->push_back(std::make_shared<PKCS11_ASYMKEY_INFO>());
    key = source.pAsymKeys()->front();
    copy = source.mutableCopyWithZone();
  }
  EXPECT_FALSE(key.expired());
  copy.reset();
  EXPECT_TRUE(key.expired());
}

}  // namespace
}  // namespace mirel::test
