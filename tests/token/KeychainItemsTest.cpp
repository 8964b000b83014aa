#include "KeychainItems.h"

#include <functional>

#include "bridge/PKCS11_CERTIFICATEOBJ_INFO.h"
#include "platform/Certificate.h"
#include "provider/CryptTKitSProvider.h"
#include "token/TokenTest.h"

namespace mirel::test {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

const std::string kCertificateCall = std::string{"append "} + kCertificateItem;
const std::string kNewKeyCall = std::string{"initKey "} + kNewKeyItem;
constexpr const char* kUnreadable = "error: [MirelSCToken-132] public key without mapping cert ID";

/// One with that key usage; records when that is read.
class StubCertificate final : public SecCertificate {
 public:
  StubCertificate(std::optional<std::int32_t> usage, PortCalls& calls) : usage_{usage}, calls_{calls} {}
  [[nodiscard]] Bytes data() const noexcept override { return {}; }
  [[nodiscard]] std::optional<std::int32_t> keyUsage() const noexcept override {
    return calls_.emplace_back("keyUsage"), usage_;
  }
  [[nodiscard]] Text subject() const noexcept override { return {}; }
  [[nodiscard]] Text notAfter() const noexcept override { return {}; }
  [[nodiscard]] CertificateKeyType keyType() const noexcept override { return CertificateKeyType::kRSA; }
  [[nodiscard]] int keySizeInBits() const noexcept override { return 2048; }

 private:
  std::optional<std::int32_t> usage_;
  PortCalls& calls_;
};

class StubParser final : public CertificateParser {
 public:
  explicit StubParser(std::shared_ptr<SecCertificate> result) : result_{std::move(result)} {}
  [[nodiscard]] std::shared_ptr<SecCertificate> createWithData(const Bytes&) noexcept override {
    return result_;
  }

 private:
  std::shared_ptr<SecCertificate> result_;
};

class KeychainItems : public TokenTest {
 protected:
  /// A provider that has just listed the card's certificates.
  void list() {
    provider = std::make_shared<CryptTKitSProvider>(services())->initWithMirelCTKFramwork();
    ASSERT_TRUE(provider);
    provider->openTKSmartCardTokenSession(Text{kReader});
    records.clear();
    ASSERT_TRUE(provider->getTokenCerts(Text{kReader}, &records));
    ASSERT_FALSE(records.empty());
    log->allLines.clear();
    leavesOpen({kFirstSession + 1});
  }
  void append(const std::shared_ptr<PKCS11_CERTIFICATEOBJ_INFO>& record) {
    appendKeychainItems(services(), lookUp(*provider, record), contents);
  }

  /// The items of a certificate with that key usage.
  void appendWithUsage(std::optional<std::int32_t> usage) {
    calls.clear();
    PlatformServices stubbed = services();
    stubbed.certificates = std::make_shared<StubParser>(std::make_shared<StubCertificate>(usage, calls));
    appendKeychainItems(
        stubbed, ListedCertificate{Bytes{Value{1}}, Text{u"cert_MyKey_01"}, Text{u"01"}, true}, contents);
  }

  std::shared_ptr<CryptTKitSProvider> provider;
  CryptTKitSProvider::CertificateList records;
  FakeContents contents{log, &calls};
};

TEST_F(KeychainItems, DoWhatTheFirstOfThreeBitsOfTheKeyUsageSaysWhichIsReadWhenThePlatformHasTakenTheKey) {
  constexpr std::int32_t kAllBits = 0x1FF;
  for (std::int32_t usage = -1; usage <= kAllBits; ++usage) {
    SCOPED_TRACE(usage);
    const unsigned bits = usage >= 0 ? static_cast<unsigned>(usage) : 0U;
    const char* expected = "PIN always, {}";
    if ((bits & kDigitalSignature) != 0) {
      expected = "can sign, for login, PIN always, {2: PINAlways}";
    } else if ((bits & kKeyEncipherment) != 0) {
      expected = "can decrypt, for login, PIN always, {3: PINAlways}";
    } else if ((bits & kKeyAgreement) != 0) {
      expected = "can exchange keys, PIN always, {4: PINAlways}";
    }
    appendWithUsage(usage >= 0 ? std::optional{usage} : std::nullopt);
    EXPECT_THAT(calls,
                ElementsAre(kCertificateCall, kNewKeyCall, "keyUsage",
                            "append key 01, label 01, certificate cert_MyKey_01, " + std::string{expected}));
  }
}

TEST_F(KeychainItems, AreTheCertificateAloneWhenTheKeyIsRefused) {
  contents.refusedKeys = {u"01"};
  appendWithUsage(kDigitalSignature);
  EXPECT_THAT(calls, ElementsAre(kCertificateCall, kNewKeyCall));
  EXPECT_THAT(log->allLines, ElementsAre(kKeyStart, kKeyEnd));
}

TEST_F(KeychainItems, HoldTheCardsCertificate) {
  list();
  append(records[0]);
  EXPECT_THAT(log->allLines, ElementsAre(kKeyStart, kKeyEnd));
  ASSERT_EQ(contents.appended.size(), 2U);
  for (const FakeItem& item : contents.appended) {
    const auto held = std::visit([](const auto& any) { return any.certificate; }, item);
    ASSERT_TRUE(held);
    EXPECT_EQ(held->data(), Bytes{script.object(kCertificate).attributes.at(CKA_VALUE)});
  }
}

TEST_F(KeychainItems, AreNotThereForARecordThatIsSkipped) {
  using Record = std::shared_ptr<PKCS11_CERTIFICATEOBJ_INFO>;
  const struct {
    const char* name;
    std::function<Record(const Record& listed)> record;
    std::vector<std::string> lines = {kUnreadable};
  } rows[] = {
      {"none", [](const Record&) { return nullptr; }, {"error: [MirelSCToken-136] certificate == nil"}},
      {"of another list", [](const Record& listed) { return listed->mutableCopyWithZone(); }},
      {"without data", [](const Record& listed) { return listed->setPbCertData(Bytes{}), listed; }},
      {"with data that is no certificate",
       [](const Record& listed) { return listed->setPbCertData(Bytes{Value(300)}), listed; }},
      {"without a key", [](const Record& listed) { return listed->setStrID(Text{u"02"}), listed; }, {}},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    resetCard();
    list();
    append(row.record(records.at(0)));
    EXPECT_THAT(calls, IsEmpty());
    EXPECT_EQ(log->allLines, row.lines);
  }
}

TEST_F(KeychainItems, OfOtherCertificatesComeBehindASkippedOneAndARefusedKey) {
  script.addObject(ecPublicKey(bytesOf("02"), bytesOf("Broken"), p256Params(), p256Point(1)));
  script.addObject(certificate(bytesOf("02"), bytesOf("Broken"), patternValue(300, 1)));
  script.addObject(certificate(bytesOf("77"), bytesOf("Lonely"), testCertificate({})));
  addKeyAndCertificate(bytesOf("03"), bytesOf("Third"), {});
  FakeToken token{services()};
  token.contents.refusedKeys = {u"01"};
  EXPECT_TRUE(token.init());
  EXPECT_THAT(itemTexts(token.contents.items()),
              ElementsAre(kCertificateItem, "certificate cert_Third_03, label 03", HasSubstr("key 03")));
  const std::vector<std::string> tail{log->allLines.end() - 7, log->allLines.end()};
  EXPECT_THAT(tail,
              ElementsAre("default: CTK [MirelSCToken-66] certs count = 3", kKeyStart, kKeyEnd, kUnreadable,
                          kKeyStart, kKeyEnd, "default: CTK [MirelSCToken-143] ---END---"));
  leavesOpen({kCardSession});
}

TEST_F(KeychainItems, CarryEveryByteOfIdAndLabel) {
  script.card().objects.clear();
  addKeyAndCertificate({0x00, 0x01}, {0xE4, 0x00, 0xFF}, {});
  list();
  append(records[0]);
  ASSERT_EQ(contents.appended.size(), 2U);
  using namespace std::string_view_literals;
  const auto& item = std::get<TKTokenKeychainCertificate>(contents.appended[0]);
  const auto& key = std::get<MirelCTKTokenKeychainKey>(contents.appended[1]);
  for (const Text& text : {item.objectID, key.certificateID}) {
    EXPECT_EQ(text.units(), u"cert_\u00E4\0\u00FF_\0\u0001"sv);
  }
  for (const Text& text : {item.label, key.objectID, key.label}) EXPECT_EQ(text.units(), u"\0\u0001"sv);
}

TEST_F(KeychainItems, AreInitialisedByThePlatformBetweenTwoLines) {
  for (const bool isTaken : {true, false}) {
    log->allLines.clear();
    const auto super = [&] { return log->process("super"), isTaken; };
    EXPECT_EQ(MirelCTKTokenKeychainKey::initWithCertificate(super, *log), isTaken);
    EXPECT_THAT(log->allLines, ElementsAre(kKeyStart, "process: super", kKeyEnd));
  }
}

}  // namespace
}  // namespace mirel::test
