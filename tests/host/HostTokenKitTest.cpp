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

  HostTokenKit kit{Text{u"Reader 7"}};
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

TEST_F(HostKit, MakesSessionsThatKnowTheirTokenWhileItIsThere) {
  auto token = kit.allocSmartCardToken();
  const auto session = kit.allocTokenSession();
  EXPECT_FALSE(session->token());
  EXPECT_TRUE(session->initWithToken(token));
  EXPECT_EQ(session->token(), token);
  token.reset();
  EXPECT_FALSE(session->token());
}

TEST_F(HostKit, ConnectsASessionToTheCardInTheReader) {
  const auto card = kit.allocTokenSession()->smartCard();
  ASSERT_TRUE(card);
  EXPECT_EQ(card->slot()->name(), Text{u"Reader 7"});
}

TEST_F(HostKit, GivesEachSessionAConnectionOfItsOwn) {
  const auto first = kit.allocTokenSession();
  const auto second = kit.allocTokenSession();
  EXPECT_EQ(first->smartCard(), first->smartCard());
  first->smartCard()->setContext(true);
  first->smartCard()->setSensitive(true);
  EXPECT_EQ(second->smartCard()->context(), std::nullopt);
  EXPECT_FALSE(second->smartCard()->sensitive());
}

// ---- Cards ----

TEST(HostCard, HasTheClassByteOfACardWithoutChannels) {
  EXPECT_EQ(cardInReader(Text{u"Reader"})->cla(), 0x00);
}

TEST(HostCard, CarriesNoMarkAtFirst) {
  const auto card = cardInReader(Text{u"Reader"});
  EXPECT_FALSE(card->sensitive());
  EXPECT_EQ(card->context(), std::nullopt);
}

TEST(HostCard, KeepsItsMarks) {
  const auto card = cardInReader(Text{u"Reader"});
  card->setSensitive(true);
  EXPECT_TRUE(card->sensitive());
  card->setContext(false);
  EXPECT_EQ(card->context(), false);
  card->setContext(std::nullopt);
  EXPECT_EQ(card->context(), std::nullopt);
}

// ---- PIN operations ----

TEST_F(HostKit, MakesPinOperationsThatHoldNothing) {
  const auto operation = kit.allocPINAuthOperation();
  EXPECT_TRUE(operation->init());
  EXPECT_FALSE(operation->smartCard());
  EXPECT_TRUE(operation->APDUTemplate().isNull());
  EXPECT_FALSE(operation->PIN());
  EXPECT_TRUE(operation->PINFormat());
  EXPECT_NE(operation, kit.allocPINAuthOperation());
}

TEST_F(HostKit, KeepsWhatIsSetOnAPinOperation) {
  const auto operation = kit.allocPINAuthOperation();
  const auto card = cardInReader(Text{u"Reader"});
  const auto format = kit.allocPINFormat();
  const auto pin = std::make_shared<const SecretText>(u"1234");
  operation->setSmartCard(card);
  operation->setAPDUTemplate(Bytes{Value{0x00, 0x20}});
  operation->setPINFormat(format);
  operation->setPIN(pin);
  EXPECT_EQ(operation->smartCard(), card);
  EXPECT_EQ(operation->APDUTemplate(), (Bytes{Value{0x00, 0x20}}));
  EXPECT_EQ(operation->PINFormat(), format);
  EXPECT_EQ(operation->PIN(), pin);
  operation->setPIN(nullptr);
  EXPECT_FALSE(operation->PIN());
}

TEST_F(HostKit, MakesPinFormatsWithThePlatformsDefaults) {
  const auto format = kit.allocPINFormat();
  EXPECT_EQ(format->charset(), TKSmartCardPINCharset::kNumeric);
  EXPECT_EQ(format->encoding(), TKSmartCardPINEncoding::kASCII);
  EXPECT_EQ(format->minPINLength(), 4);
  EXPECT_EQ(format->maxPINLength(), 8);
  EXPECT_EQ(format->PINBlockByteLength(), 8);
  EXPECT_EQ(format->PINJustification(), TKSmartCardPINJustification::kLeft);
  EXPECT_EQ(format->PINBitOffset(), 0);
  EXPECT_EQ(format->PINLengthBitOffset(), 0);
  EXPECT_EQ(format->PINLengthBitSize(), 0);
}

TEST_F(HostKit, KeepsTheOffsetOfAPinFormat) {
  const auto format = kit.allocPINFormat();
  format->setPINBitOffset(40);
  EXPECT_EQ(format->PINBitOffset(), 40);
  EXPECT_EQ(kit.allocPINFormat()->PINBitOffset(), 0);
}

// ---- Algorithms ----

TEST(HostAlgorithm, IsTheOneAskedForAlone) {
  for (const auto& [asked, askedName] : kSecKeyAlgorithms) {
    SCOPED_TRACE(askedName);
    const HostKeyAlgorithm request{asked};
    for (const auto& [other, otherName] : kSecKeyAlgorithms)
      EXPECT_EQ(request.isAlgorithm(other), askedName == otherName) << otherName;
  }
}

}  // namespace
}  // namespace mirel::test
