#include "platform/Certificate.h"
#include "token/MirelCTKTokenKeychainKey.h"
#include "token/TokenTest.h"

namespace mirel::test {
namespace {

using ::testing::ElementsAre;

const Text kKeyObjectID{u"01"};
const Text kCertificateObjectID{u"cert_MyKey_01"};

class KeychainKey : public TokenTest {
 protected:
  [[nodiscard]] bool init(bool alwaysAuthenticate = true) {
    return key.initWithCertificate(certificate, kKeyObjectID, kCertificateObjectID, alwaysAuthenticate);
  }

  const std::shared_ptr<FakeKeychainKey> base = std::make_shared<FakeKeychainKey>(kit->script);
  const std::shared_ptr<SecCertificate> certificate =
      systemCertificateParser()->createWithData(Bytes{testCertificate({})});
  MirelCTKTokenKeychainKey key{services(), base};
};

TEST_F(KeychainKey, IsEmptyBefore) {
  EXPECT_TRUE(key.certificateID().isNull());
  EXPECT_FALSE(key.alwaysAuthenticate());
}

TEST_F(KeychainKey, MakesThePlatformsItem) {
  EXPECT_TRUE(init());
  EXPECT_EQ(base->madeOf(), certificate);
  EXPECT_EQ(base->objectID(), kKeyObjectID);
  EXPECT_EQ(key.objectID(), kKeyObjectID);
}

TEST_F(KeychainKey, RemembersItsCertificateItem) {
  EXPECT_TRUE(init());
  EXPECT_EQ(key.certificateID(), kCertificateObjectID);
}

TEST_F(KeychainKey, RemembersWhetherEveryUseNeedsThePin) {
  for (const bool value : {true, false}) {
    EXPECT_TRUE(init(value));
    EXPECT_EQ(key.alwaysAuthenticate(), value);
  }
}

TEST_F(KeychainKey, RemembersNothingWhenThePlatformRefuses) {
  kit->script->refusedKeyItems = {u"01"};
  EXPECT_FALSE(init());
  EXPECT_TRUE(key.certificateID().isNull());
  EXPECT_FALSE(key.alwaysAuthenticate());
}

TEST_F(KeychainKey, LogsItsInitialisation) {
  EXPECT_TRUE(init());
  EXPECT_THAT(log->allLines, ElementsAre("default: CTK [MirelSCToken-15] +++START+++",
                                         "default: CTK [MirelSCToken-21] ---END---"));
}

TEST_F(KeychainKey, LogsARefusedInitialisationAlike) {
  kit->script->refusedKeyItems = {u"01"};
  EXPECT_FALSE(init());
  EXPECT_THAT(log->allLines, ElementsAre("default: CTK [MirelSCToken-15] +++START+++",
                                         "default: CTK [MirelSCToken-21] ---END---"));
}

TEST_F(KeychainKey, SetsEverythingOnThePlatformsItem) {
  EXPECT_TRUE(init());
  key.setLabel(Text{u"Label"});
  key.setCanSign(true);
  EXPECT_TRUE(base->canSign());
  EXPECT_FALSE(base->canDecrypt());
  key.setCanDecrypt(true);
  EXPECT_TRUE(base->canDecrypt());
  EXPECT_FALSE(base->canPerformKeyExchange());
  key.setCanPerformKeyExchange(true);
  EXPECT_TRUE(base->canPerformKeyExchange());
  EXPECT_FALSE(base->suitableForLogin());
  key.setSuitableForLogin(true);
  EXPECT_TRUE(base->suitableForLogin());
  key.setConstraints({{TKTokenOperation::kSignData, Text{u"PIN"}}});
  EXPECT_EQ(base->label(), Text{u"Label"});
  EXPECT_EQ(base->constraints(), (TKTokenConstraints{{TKTokenOperation::kSignData, Text{u"PIN"}}}));
}

TEST_F(KeychainKey, ReadsEverythingFromThePlatformsItem) {
  EXPECT_TRUE(init());
  EXPECT_FALSE(key.canSign() || key.canDecrypt() || key.canPerformKeyExchange() || key.suitableForLogin());
  EXPECT_EQ(key.constraints(), std::nullopt);
  base->setLabel(Text{u"Label"});
  base->setCanSign(true);
  base->setCanDecrypt(true);
  base->setCanPerformKeyExchange(true);
  base->setSuitableForLogin(true);
  base->setConstraints({});
  EXPECT_EQ(key.label(), Text{u"Label"});
  EXPECT_TRUE(key.canSign() && key.canDecrypt() && key.canPerformKeyExchange() && key.suitableForLogin());
  EXPECT_EQ(key.constraints(), TKTokenConstraints{});
  EXPECT_EQ(key.keyType(), CertificateKeyType::kECPrimeRandom);
  EXPECT_EQ(key.keySizeInBits(), 256);
}

}  // namespace
}  // namespace mirel::test
