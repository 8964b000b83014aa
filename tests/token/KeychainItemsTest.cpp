#include "KeychainItems.h"

#include "bridge/PKCS11_CERTIFICATEOBJ_INFO.h"
#include "provider/CryptTKitSProvider.h"
#include "token/TokenTest.h"

namespace mirel::test {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

constexpr const char* kUnreadable = "error: [MirelSCToken-132] public key without mapping cert ID";

/// A provider that has just listed the card's certificates.
class KeychainItems : public TokenTest {
 protected:
  void list() {
    provider = std::make_shared<CryptTKitSProvider>(services())->initWithMirelCTKFramwork();
    ASSERT_TRUE(provider);
    provider->openTKSmartCardTokenSession(Text{kReader});
    ASSERT_TRUE(provider->getTokenCerts(Text{kReader}, &records));
    log->allLines.clear();
    leavesOpen({kFirstSession + 1});
  }

  void append(const std::shared_ptr<PKCS11_CERTIFICATEOBJ_INFO>& record) {
    appendKeychainItems(services(), lookUp(*provider, record), items);
  }

  std::shared_ptr<CryptTKitSProvider> provider;
  CryptTKitSProvider::CertificateList records;
  mirel::KeychainItems items;
};

TEST_F(KeychainItems, AreACertificateAndAKey) {
  list();
  ASSERT_EQ(records.size(), 1U);
  append(records[0]);
  EXPECT_THAT(itemTexts(items),
              ElementsAre("certificate cert_MyKey_01, label 01",
                          "key 01, label 01, certificate cert_MyKey_01, can sign, for login, "
                          "PIN always, {2: PINAlways}"));
}

TEST_F(KeychainItems, HoldTheCardsCertificate) {
  list();
  append(records.at(0));
  const auto item = std::dynamic_pointer_cast<FakeKeychainCertificate>(items.at(0));
  ASSERT_TRUE(item);
  const auto data = item->certificate()->data().view();
  EXPECT_EQ(Value(data.begin(), data.end()), script.object(kCertificate).attributes.at(CKA_VALUE));
}

TEST_F(KeychainItems, AreAppended) {
  list();
  append(records.at(0));
  append(records.at(0));
  EXPECT_EQ(items.size(), 4U);
}

TEST_F(KeychainItems, SkipAMissingRecord) {
  list();
  append(nullptr);
  EXPECT_THAT(items, IsEmpty());
  EXPECT_THAT(log->allLines, ElementsAre("error: [MirelSCToken-136] certificate == nil"));
}

TEST_F(KeychainItems, SkipDataThatIsNoCertificate) {
  Object& object = script.object(kCertificate);
  object = object.with(CKA_VALUE, patternValue(300, 1));
  list();
  append(records.at(0));
  EXPECT_THAT(items, IsEmpty());
  EXPECT_THAT(log->allLines, ElementsAre(kUnreadable));
}

TEST_F(KeychainItems, SkipACertificateWithSomethingBehindIt) {
  Object& object = script.object(kCertificate);
  Value der = testCertificate({});
  der.push_back(0);
  object = object.with(CKA_VALUE, der);
  list();
  append(records.at(0));
  EXPECT_THAT(items, IsEmpty());
  EXPECT_THAT(log->allLines, ElementsAre(kUnreadable));
}

TEST_F(KeychainItems, SkipARecordWithoutData) {
  list();
  records.at(0)->setPbCertData(Bytes{});
  append(records[0]);
  EXPECT_THAT(items, IsEmpty());
  EXPECT_THAT(log->allLines, ElementsAre(kUnreadable));
}

TEST_F(KeychainItems, SkipARecordOfAnotherList) {
  list();
  append(records.at(0)->mutableCopyWithZone());
  EXPECT_THAT(items, IsEmpty());
  EXPECT_THAT(log->allLines, ElementsAre(kUnreadable));
}

TEST_F(KeychainItems, SkipACertificateWithoutAKeyWithoutAWord) {
  list();
  records.at(0)->setStrID(Text{u"02"});
  append(records[0]);
  EXPECT_THAT(items, IsEmpty());
  EXPECT_THAT(log->allLines, IsEmpty());
}

TEST_F(KeychainItems, SkipOnlyTheCertificateThatIsNone) {
  script.addObject(ecPublicKey(bytesOf("02"), bytesOf("Broken"), p256Params(), p256Point(1)));
  script.addObject(certificate(bytesOf("02"), bytesOf("Broken"), patternValue(300, 1)));
  addKeyAndCertificate(bytesOf("03"), bytesOf("Third"), {});
  EXPECT_TRUE(init(newToken()));
  EXPECT_THAT(itemTexts(*baseOfNewToken()),
              ElementsAre("certificate cert_MyKey_01, label 01", HasSubstr("key 01"),
                          "certificate cert_Third_03, label 03", HasSubstr("key 03")));
  const std::vector<std::string> tail{log->allLines.end() - 7, log->allLines.end()};
  EXPECT_THAT(
      tail,
      ElementsAre("default: CTK [MirelSCToken-66] certs count = 3",
                  "default: CTK [MirelSCToken-15] +++START+++", "default: CTK [MirelSCToken-21] ---END---",
                  kUnreadable, "default: CTK [MirelSCToken-15] +++START+++",
                  "default: CTK [MirelSCToken-21] ---END---", "default: CTK [MirelSCToken-143] ---END---"));
  leavesOpen({kCardSession});
}

TEST_F(KeychainItems, KeepTheCertificateWhenTheKeyIsRefused) {
  kit->script->refusedKeyItems = {u"01"};
  list();
  append(records.at(0));
  EXPECT_THAT(itemTexts(items), ElementsAre("certificate cert_MyKey_01, label 01"));
  EXPECT_THAT(log->allLines, ElementsAre("default: CTK [MirelSCToken-15] +++START+++",
                                         "default: CTK [MirelSCToken-21] ---END---"));
}

TEST_F(KeychainItems, GoOnBehindARefusedKey) {
  addKeyAndCertificate(bytesOf("02"), bytesOf("Second"), {});
  kit->script->refusedKeyItems = {u"01"};
  EXPECT_TRUE(init(newToken()));
  EXPECT_THAT(itemTexts(*baseOfNewToken()),
              ElementsAre("certificate cert_MyKey_01, label 01", "certificate cert_Second_02, label 02",
                          HasSubstr("key 02")));
  leavesOpen({kCardSession});
}

TEST_F(KeychainItems, HoldNoRefusedCertificate) {
  kit->script->refusesCertificateItems = true;
  list();
  append(records.at(0));
  EXPECT_THAT(itemTexts(items), ElementsAre(HasSubstr("key 01")));
}

}  // namespace
}  // namespace mirel::test
