#include "KeychainItems.h"

#include "bridge/PKCS11_CERTIFICATEOBJ_INFO.h"
#include "platform/Certificate.h"
#include "provider/CryptTKitSProvider.h"
#include "token/TokenTest.h"

namespace mirel::test {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

constexpr const char* kUnreadable = "error: [MirelSCToken-132] public key without mapping cert ID";
constexpr const char* kKeyStart = "default: CTK [MirelSCToken-15] +++START+++";
constexpr const char* kKeyEnd = "default: CTK [MirelSCToken-21] ---END---";

/// Records when its key usage is read.
class WatchedCertificate final : public SecCertificate {
 public:
  WatchedCertificate(std::shared_ptr<SecCertificate> real, PortCalls& calls)
      : real_{std::move(real)}, calls_{calls} {}
  [[nodiscard]] Bytes data() const noexcept override { return real_->data(); }
  [[nodiscard]] std::optional<std::int32_t> keyUsage() const noexcept override {
    calls_.emplace_back("keyUsage");
    return real_->keyUsage();
  }
  [[nodiscard]] Text subject() const noexcept override { return real_->subject(); }
  [[nodiscard]] Text notAfter() const noexcept override { return real_->notAfter(); }
  [[nodiscard]] CertificateKeyType keyType() const noexcept override { return real_->keyType(); }
  [[nodiscard]] int keySizeInBits() const noexcept override { return real_->keySizeInBits(); }

 private:
  std::shared_ptr<SecCertificate> real_;
  PortCalls& calls_;
};

class WatchedParser final : public CertificateParser {
 public:
  explicit WatchedParser(PortCalls& calls) : calls_{calls} {}
  [[nodiscard]] std::shared_ptr<SecCertificate> createWithData(const Bytes& der) noexcept override {
    auto certificate = systemCertificateParser()->createWithData(der);
    return certificate ? std::make_shared<WatchedCertificate>(std::move(certificate), calls_) : nullptr;
  }

 private:
  PortCalls& calls_;
};

/// A provider that has just listed the card's certificates.
class KeychainItems : public TokenTest {
 protected:
  void list() {
    provider = std::make_shared<CryptTKitSProvider>(services())->initWithMirelCTKFramwork();
    ASSERT_TRUE(provider);
    provider->openTKSmartCardTokenSession(Text{kReader});
    ASSERT_TRUE(provider->getTokenCerts(Text{kReader}, &records));
    ASSERT_FALSE(records.empty());
    log->allLines.clear();
    leavesOpen({kFirstSession + 1});
  }

  void append(const std::shared_ptr<PKCS11_CERTIFICATEOBJ_INFO>& record) {
    PlatformServices watched = services();
    watched.certificates = std::make_shared<WatchedParser>(calls);
    appendKeychainItems(watched, lookUp(*provider, record), contents);
  }

  /// Nothing is asked of the platform, and that line is all that is logged; null: none is.
  void expectSkipped(const std::shared_ptr<PKCS11_CERTIFICATEOBJ_INFO>& record, const char* line) {
    append(record);
    EXPECT_THAT(calls, IsEmpty());
    EXPECT_EQ(log->allLines, line ? std::vector<std::string>{line} : std::vector<std::string>{});
  }

  std::shared_ptr<CryptTKitSProvider> provider;
  CryptTKitSProvider::CertificateList records;
  FakeContents contents{log, &calls};
};

TEST_F(KeychainItems, AreACertificateAndAKeyWhoseUsageIsReadWhenThePlatformHasTakenIt) {
  list();
  append(records[0]);
  EXPECT_THAT(calls,
              ElementsAre("append certificate cert_MyKey_01, label 01",
                          "initKey key 01, label , certificate cert_MyKey_01, PIN always, {}", "keyUsage",
                          "append key 01, label 01, certificate cert_MyKey_01, can sign, for login, PIN "
                          "always, {2: PINAlways}"));
  EXPECT_THAT(log->allLines, ElementsAre(kKeyStart, kKeyEnd));
}

TEST_F(KeychainItems, HoldTheCardsCertificate) {
  list();
  append(records[0]);
  ASSERT_EQ(contents.appended.size(), 2U);
  for (const FakeItem& item : contents.appended) {
    const auto held = std::visit([](const auto& any) { return any.certificate; }, item);
    ASSERT_TRUE(held);
    EXPECT_EQ(held->data(), Bytes{script.object(kCertificate).attributes.at(CKA_VALUE)});
  }
}

TEST_F(KeychainItems, SkipAMissingRecord) {
  list();
  expectSkipped(nullptr, "error: [MirelSCToken-136] certificate == nil");
}

TEST_F(KeychainItems, SkipDataThatIsNoCertificate) {
  Object& object = script.object(kCertificate);
  object = object.with(CKA_VALUE, patternValue(300, 1));
  list();
  expectSkipped(records[0], kUnreadable);
}

TEST_F(KeychainItems, SkipACertificateWithSomethingBehindIt) {
  Object& object = script.object(kCertificate);
  Value der = testCertificate({});
  der.push_back(0);
  object = object.with(CKA_VALUE, der);
  list();
  expectSkipped(records[0], kUnreadable);
}

TEST_F(KeychainItems, SkipARecordWithoutData) {
  list();
  records[0]->setPbCertData(Bytes{});
  expectSkipped(records[0], kUnreadable);
}

TEST_F(KeychainItems, SkipARecordOfAnotherList) {
  list();
  expectSkipped(records[0]->mutableCopyWithZone(), kUnreadable);
}

TEST_F(KeychainItems, SkipACertificateWithoutAKeyWithoutALine) {
  list();
  records[0]->setStrID(Text{u"02"});
  expectSkipped(records[0], nullptr);
}

TEST_F(KeychainItems, KeepTheCertificateAloneWhenTheKeyIsRefused) {
  contents.refusedKeys = {u"01"};
  list();
  append(records[0]);
  EXPECT_THAT(calls, ElementsAre("append certificate cert_MyKey_01, label 01", HasSubstr("initKey key 01")));
  EXPECT_THAT(log->allLines, ElementsAre(kKeyStart, kKeyEnd));
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
              ElementsAre("certificate cert_MyKey_01, label 01", "certificate cert_Third_03, label 03",
                          HasSubstr("key 03")));
  const std::vector<std::string> tail{log->allLines.end() - 7, log->allLines.end()};
  EXPECT_THAT(tail,
              ElementsAre("default: CTK [MirelSCToken-66] certs count = 3", kKeyStart, kKeyEnd, kUnreadable,
                          kKeyStart, kKeyEnd, "default: CTK [MirelSCToken-143] ---END---"));
  leavesOpen({kCardSession});
}

TEST_F(KeychainItems, CarryEveryByteOfIdAndLabel) {
  script.card().objects.clear();
  addKeyAndCertificate({0x00, 0x01}, {0xE4, 0x00, 0xFF}, {});
  addKeyAndCertificate({0x01}, {0x7F}, {});
  list();
  for (const auto& record : records) append(record);
  ASSERT_EQ(contents.appended.size(), 4U);
  using namespace std::string_view_literals;
  const auto objectID = [&](std::size_t i) {
    return std::visit([](const auto& any) { return any.objectID; }, contents.appended[i]);
  };
  EXPECT_EQ(objectID(0).units(), u"cert_\u00E4\0\u00FF_\0\u0001"sv);
  EXPECT_EQ(objectID(1).units(), u"\0\u0001"sv);
  EXPECT_EQ(objectID(2).units(), u"cert_\u007F_\u0001"sv);
  EXPECT_EQ(objectID(3).units(), u"\u0001"sv);
  const auto* const key = std::get_if<MirelCTKTokenKeychainKey>(&contents.appended[1]);
  ASSERT_TRUE(key);
  EXPECT_EQ(key->label.units(), u"\0\u0001"sv);
  EXPECT_EQ(key->certificateID.units(), u"cert_\u00E4\0\u00FF_\0\u0001"sv);
}

// ---- The initialiser of key items ----

TEST_F(KeychainItems, AreInitialisedByThePlatformBetweenTwoLines) {
  for (const bool isTaken : {true, false}) {
    log->allLines.clear();
    EXPECT_EQ(MirelCTKTokenKeychainKey::initWithCertificate(
                  [&] {
                    log->process("super");
                    return isTaken;
                  },
                  *log),
              isTaken);
    EXPECT_THAT(log->allLines, ElementsAre(kKeyStart, "process: super", kKeyEnd));
  }
}

// ---- What a key can do ----

constexpr unsigned kNonRepudiation = 1U << 1U;
constexpr unsigned kDataEncipherment = 1U << 3U;
constexpr unsigned kKeyCertSign = 1U << 5U;
constexpr unsigned kCRLSign = 1U << 6U;
constexpr unsigned kEncipherOnly = 1U << 7U;
constexpr unsigned kDecipherOnly = 1U << 8U;
constexpr unsigned kAllBits = 0x1FF;

constexpr const char* kSigns = "can sign, for login, PIN always, {2: PINAlways}";
constexpr const char* kDecrypts = "can decrypt, for login, PIN always, {3: PINAlways}";
constexpr const char* kExchangesKeys = "can exchange keys, PIN always, {4: PINAlways}";
constexpr const char* kDoesNothing = "PIN always, {}";

TEST_F(KeychainItems, DoWhatTheFirstOfThreeBitsOfTheCertificatesKeyUsageSays) {
  const struct {
    const char* name;
    std::optional<unsigned> keyUsage;
    const char* expected = kDoesNothing;
  } rows[] = {
      // One bit.
      {"digitalSignature", kDigitalSignature, kSigns},
      {"nonRepudiation", kNonRepudiation},
      {"keyEncipherment", kKeyEncipherment, kDecrypts},
      {"dataEncipherment", kDataEncipherment},
      {"keyAgreement", kKeyAgreement, kExchangesKeys},
      {"keyCertSign", kKeyCertSign},
      {"cRLSign", kCRLSign},
      {"encipherOnly", kEncipherOnly},
      {"decipherOnly", kDecipherOnly},
      // Several.
      {"signature and non-repudiation", kDigitalSignature | kNonRepudiation, kSigns},
      {"signature and encipherment", kDigitalSignature | kKeyEncipherment, kSigns},
      {"signature and agreement", kDigitalSignature | kKeyAgreement, kSigns},
      {"encipherment and agreement", kKeyEncipherment | kKeyAgreement, kDecrypts},
      {"key and data encipherment", kKeyEncipherment | kDataEncipherment, kDecrypts},
      {"agreement, encipherOnly", kKeyAgreement | kEncipherOnly, kExchangesKeys},
      {"agreement, decipherOnly", kKeyAgreement | kDecipherOnly, kExchangesKeys},
      {"certificates and lists", kKeyCertSign | kCRLSign},
      {"all bits", kAllBits, kSigns},
      {"all but signature", kAllBits & ~kDigitalSignature, kDecrypts},
      {"all but signature and encipherment", kAllBits & ~(kDigitalSignature | kKeyEncipherment),
       kExchangesKeys},
      {"all but these three", kAllBits & ~(kDigitalSignature | kKeyEncipherment | kKeyAgreement)},
      // None.
      {"no bit", 0U},
      {"no extension", std::nullopt},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    resetCard();
    setCertificate({.keyUsage = row.keyUsage});
    FakeToken token{services()};
    EXPECT_TRUE(token.init());
    EXPECT_THAT(itemTexts(token.contents.items()),
                ElementsAre("certificate cert_MyKey_01, label 01",
                            "key 01, label 01, certificate cert_MyKey_01, " + std::string{row.expected}));
    leavesOpen({kCardSession});
  }
}

}  // namespace
}  // namespace mirel::test
