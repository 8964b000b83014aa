#include "HostTokenKit.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "platform/Certificate.h"
#include "token/TestCertificates.h"

namespace mirel::test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

[[nodiscard]] std::shared_ptr<SecCertificate> parsed(const CertificateRequest& request) {
  return systemCertificateParser()->createWithData(Bytes{testCertificate(request)});
}

class HostKit : public ::testing::Test {
 protected:
  [[nodiscard]] std::shared_ptr<TKTokenKeychainKey> keyItem(const Text& objectID) {
    auto key = kit.allocKeychainKey();
    EXPECT_TRUE(key->initWithCertificate(parsed({}), objectID));
    return key;
  }
  [[nodiscard]] std::shared_ptr<TKTokenKeychainCertificate> certificateItem(const Text& objectID) {
    auto certificate = kit.allocKeychainCertificate();
    EXPECT_TRUE(certificate->initWithCertificate(parsed({}), objectID));
    return certificate;
  }

  HostTokenKit kit;
};

// ---- Tokens ----

TEST_F(HostKit, AllocatesANewTokenEachTime) {
  const auto first = kit.allocSmartCardToken();
  ASSERT_TRUE(first);
  EXPECT_NE(first, kit.allocSmartCardToken());
}

TEST_F(HostKit, RemembersTheTokenAllocatedLast) {
  EXPECT_FALSE(kit.lastToken());
  const auto first = kit.allocSmartCardToken();
  const auto second = kit.allocSmartCardToken();
  EXPECT_EQ(kit.lastToken(), second);
}

TEST_F(HostKit, KeepsTheInstanceIdentifierOfAToken) {
  const auto token = kit.allocSmartCardToken();
  EXPECT_TRUE(kit.lastToken()->instanceID().isNull());
  EXPECT_TRUE(token->initWithSmartCard(cardInReader(Text{u"Reader"}), Bytes{}, Text{u"identifier"}, nullptr));
  EXPECT_EQ(kit.lastToken()->instanceID(), Text{u"identifier"});
}

TEST_F(HostKit, OffersAReaderWithItsName) {
  EXPECT_EQ(cardInReader(Text{u"Reader 7"})->slot()->name(), Text{u"Reader 7"});
}

// ---- Contents ----

TEST_F(HostKit, KnowsContentsThatNobodyHasFilled) {
  const auto token = kit.allocSmartCardToken();
  EXPECT_FALSE(kit.lastToken()->contents().filled());
  EXPECT_THAT(token->keychainContents()->items(), IsEmpty());
  token->keychainContents()->fillWithItems({});
  EXPECT_TRUE(kit.lastToken()->contents().filled());
  EXPECT_THAT(token->keychainContents()->items(), IsEmpty());
}

TEST_F(HostKit, ReplacesContents) {
  const auto token = kit.allocSmartCardToken();
  const auto first = keyItem(Text{u"1"});
  const auto second = keyItem(Text{u"2"});
  const auto third = keyItem(Text{u"3"});
  token->keychainContents()->fillWithItems({first});
  token->keychainContents()->fillWithItems({third, second});
  EXPECT_THAT(token->keychainContents()->items(), ElementsAre(third, second));
}

TEST_F(HostKit, FindsAKeyByItsIdentifier) {
  const auto token = kit.allocSmartCardToken();
  const auto wanted = keyItem(Text{u"2"});
  // A certificate with the same identifier is no key.
  token->keychainContents()->fillWithItems({certificateItem(Text{u"2"}), keyItem(Text{u"1"}), wanted});
  std::optional<TKError> error;
  EXPECT_EQ(token->keychainContents()->keyForObjectID(Text{u"2"}, &error), wanted);
  EXPECT_EQ(error, std::nullopt);
}

TEST_F(HostKit, ReportsAKeyThatThereIsNot) {
  const auto token = kit.allocSmartCardToken();
  token->keychainContents()->fillWithItems({certificateItem(Text{u"2"})});
  std::optional<TKError> error;
  EXPECT_FALSE(token->keychainContents()->keyForObjectID(Text{u"2"}, &error));
  EXPECT_EQ(error, (TKError{Text{u"CryptoTokenKit"}, -6, Text{}}));
  EXPECT_FALSE(token->keychainContents()->keyForObjectID(Text{u"2"}, nullptr));
}

// ---- Items ----

TEST_F(HostKit, MakesAKeyOfAnEcCertificate) {
  const auto key = keyItem(Text{u"1"});
  EXPECT_EQ(key->objectID(), Text{u"1"});
  EXPECT_EQ(key->keyType(), CertificateKeyType::kECPrimeRandom);
  EXPECT_EQ(key->keySizeInBits(), 256);
}

TEST_F(HostKit, MakesAKeyOfAnRsaCertificate) {
  const auto key = kit.allocKeychainKey();
  EXPECT_TRUE(key->initWithCertificate(parsed({.key = TestKey::kRsa2048}), Text{u"1"}));
  EXPECT_EQ(key->keyType(), CertificateKeyType::kRSA);
  EXPECT_EQ(key->keySizeInBits(), 2048);
}

TEST_F(HostKit, RefusesAKeyOfAnotherKind) {
  EXPECT_FALSE(kit.allocKeychainKey()->initWithCertificate(parsed({.key = TestKey::kEd25519}), Text{u"1"}));
}

TEST_F(HostKit, RefusesItemsWithoutACertificate) {
  EXPECT_FALSE(kit.allocKeychainKey()->initWithCertificate(nullptr, Text{u"1"}));
  EXPECT_FALSE(kit.allocKeychainCertificate()->initWithCertificate(nullptr, Text{u"1"}));
}

TEST_F(HostKit, MakesKeysThatCanDoNothing) {
  const auto key = keyItem(Text{u"1"});
  EXPECT_FALSE(key->canSign() || key->canDecrypt() || key->canPerformKeyExchange() ||
               key->suitableForLogin());
  EXPECT_EQ(key->constraints(), std::nullopt);
  EXPECT_TRUE(key->label().isNull());
}

TEST_F(HostKit, KeepsWhatIsSetOnAKey) {
  const auto key = keyItem(Text{u"1"});
  key->setCanSign(true);
  EXPECT_TRUE(key->canSign() && !key->canDecrypt() && !key->canPerformKeyExchange() &&
              !key->suitableForLogin());
  key->setCanDecrypt(true);
  EXPECT_TRUE(key->canDecrypt() && !key->canPerformKeyExchange() && !key->suitableForLogin());
  key->setCanPerformKeyExchange(true);
  EXPECT_TRUE(key->canPerformKeyExchange() && !key->suitableForLogin());
  key->setSuitableForLogin(true);
  EXPECT_TRUE(key->suitableForLogin());
  key->setLabel(Text{u"label"});
  EXPECT_EQ(key->label(), Text{u"label"});
  key->setConstraints({});
  EXPECT_EQ(key->constraints(), TKTokenConstraints{});
}

TEST_F(HostKit, KeepsTheCertificateOfACertificateItem) {
  const auto certificate = parsed({});
  const auto item = kit.allocKeychainCertificate();
  EXPECT_FALSE(item->certificate());
  EXPECT_TRUE(item->initWithCertificate(certificate, Text{u"c"}));
  EXPECT_EQ(item->certificate(), certificate);
  EXPECT_EQ(item->objectID(), Text{u"c"});
}

// ---- Sessions ----

TEST_F(HostKit, MakesSessionsOfATokenAlone) {
  EXPECT_TRUE(kit.allocTokenSession()->initWithToken(kit.allocSmartCardToken()));
  EXPECT_FALSE(kit.allocTokenSession()->initWithToken(nullptr));
}

}  // namespace
}  // namespace mirel::test
