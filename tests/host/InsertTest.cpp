#include "host/HostTest.h"

namespace mirel::test {
namespace {

constexpr unsigned kSignatureAndNonRepudiation = 0x03;
constexpr unsigned kKeyEncipherment = 1U << 2U;
constexpr unsigned kKeyAgreement = 1U << 4U;

class Insert : public InsertedCardTest {
 protected:
  /// Item number `i` of the card, as a certificate or a key.
  template <typename Item>
  [[nodiscard]] static Item at(const InsertedCard& card, std::size_t i) {
    if (i < card.items.size()) {
      if (const auto* item = std::get_if<Item>(&card.items[i])) return *item;
    }
    ADD_FAILURE() << "item " << i << " of " << card.items.size() << " is of another class, or there is none";
    return {};
  }

  /// Why the card cannot be listed.
  [[nodiscard]] std::string whyNotListed() {
    const Failure failure = failureOf(host.insert(Text{}));
    EXPECT_THAT(failure.kind, AnyOf(FailureKind::kCardEnumerationFailed, FailureKind::kCardGone));
    EXPECT_THAT(failure.what, HasSubstr("\"Reader A 00\""));
    return failure.why;
  }
};

// ---- What is published ----

TEST_F(Insert, TellsReaderAndToken) {
  const InsertedCard card = inserted();
  EXPECT_EQ(card.reader.name, Text{u"Reader A 00"});
  EXPECT_EQ(card.reader.serialNumber, Text{u"1234567890ABCDEF"});
  EXPECT_EQ(card.instanceID.length(), 116U);  // 96 bytes and two of the flags, 16 and two of the flags
  EXPECT_EQ(card.instanceID.units().substr(80),
            u"1234567890ABCDEF\x0D\x04"
            u"1234567890ABCDEF\x0D\x04");
  EXPECT_THAT(script.openSessions(), ElementsAre(kCardSession));
}

TEST_F(Insert, PublishesACertificate) {
  setCertificate({.commonName = "Jane D\xC3\xB6", .keyUsage = kSignatureAndNonRepudiation});
  const auto certificate = at<PublishedCertificate>(inserted(), 0);
  EXPECT_EQ(certificate.objectID, Text{u"cert_MyKey_01"});
  EXPECT_EQ(certificate.label, Text{u"01"});
  EXPECT_EQ(certificate.subject, Text{u"CN=Jane D\u00F6"});
  EXPECT_EQ(certificate.notAfter.toUtf8(), kTestNotAfter);
  EXPECT_THAT(certificate.keyUsage, ElementsAre("digitalSignature", "nonRepudiation"));
  EXPECT_EQ(certificate.size, script.object(kCertificate).attributes.at(CKA_VALUE).size());
}

TEST_F(Insert, PublishesTheKeyWithTheUseOfItsCertificate) {
  const struct {
    const char* use;  ///< empty: none
    CertificateRequest request;
    std::optional<KeyOperation> operation{};  ///< that asks for the PIN
    bool forLogin = true;
    int bits = 256;
  } rows[] = {
      {"sign",
       {.key = TestKey::kRsa2048, .keyUsage = kSignatureAndNonRepudiation},
       KeyOperation::kSign,
       true,
       2048},
      {"decrypt", {.keyUsage = kKeyEncipherment}, KeyOperation::kDecrypt},
      {"exchange", {.keyUsage = kKeyAgreement}, KeyOperation::kExchangeKeys, false},
      {"", {}, {}, false},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.use);
    setCertificate(row.request);
    const InsertedCard card = inserted();
    EXPECT_EQ(at<PublishedCertificate>(card, 0).keyUsage.empty(), !row.request.keyUsage);
    const auto key = at<PublishedKey>(card, 1);
    EXPECT_EQ(key.objectID, Text{u"01"});
    EXPECT_EQ(key.label, Text{u"01"});
    EXPECT_EQ(key.certificateID, Text{u"cert_MyKey_01"});
    EXPECT_EQ(key.keyType, row.bits == 256 ? CertificateKeyType::kECPrimeRandom : CertificateKeyType::kRSA);
    EXPECT_EQ(key.keySizeInBits, row.bits);
    EXPECT_EQ(key.canSign, row.use == std::string_view{"sign"});
    EXPECT_EQ(key.canDecrypt, row.use == std::string_view{"decrypt"});
    EXPECT_EQ(key.canPerformKeyExchange, row.use == std::string_view{"exchange"});
    EXPECT_EQ(key.suitableForLogin, row.forLogin);
    EXPECT_TRUE(key.alwaysAuthenticate);
    if (row.operation) {
      EXPECT_THAT(key.constraints, ElementsAre(std::pair{*row.operation, Text{u"PINAlways"}}));
    } else {
      EXPECT_THAT(key.constraints, IsEmpty());
    }
  }
}

TEST_F(Insert, PublishesInTheOrderOfTheCard) {
  addKeyAndCertificate(bytesOf("03"), bytesOf("Third"), {});
  addKeyAndCertificate(bytesOf("02"), bytesOf("Second"), {});
  const InsertedCard card = inserted();
  ASSERT_EQ(card.items.size(), 6U);
  EXPECT_EQ(at<PublishedCertificate>(card, 0).objectID, Text{u"cert_MyKey_01"});
  EXPECT_EQ(at<PublishedKey>(card, 1).objectID, Text{u"01"});
  EXPECT_EQ(at<PublishedCertificate>(card, 2).objectID, Text{u"cert_Third_03"});
  EXPECT_EQ(at<PublishedKey>(card, 3).objectID, Text{u"03"});
  EXPECT_EQ(at<PublishedCertificate>(card, 4).objectID, Text{u"cert_Second_02"});
  EXPECT_EQ(at<PublishedKey>(card, 5).objectID, Text{u"02"});
}

TEST_F(Insert, PublishesTheCertificateAloneWhoseKeyIsOfAnUnknownKind) {
  setCertificate({.key = TestKey::kEd25519});
  const InsertedCard card = inserted();
  ASSERT_EQ(card.items.size(), 1U);
  EXPECT_EQ(at<PublishedCertificate>(card, 0).objectID, Text{u"cert_MyKey_01"});
}

TEST_F(Insert, PublishesNothingOfAnEmptyCard) {
  script.card().objects.clear();
  EXPECT_THAT(inserted().items, IsEmpty());
}

TEST_F(Insert, WorksAgainAndAgainAndAfterAFailure) {
  EXPECT_EQ(inserted().items.size(), 2U);
  EXPECT_EQ(inserted().items.size(), 2U);
  EXPECT_THAT(script.openSessions(), ElementsAre(kCardSession, kCardSession + 3));
  script.failCallOf("C_FindObjectsInit", 0, CKR_DEVICE_ERROR);
  EXPECT_THAT(whyNotListed(), StartsWith("C_FindObjectsInit answered CKR_DEVICE_ERROR (0x30)"));
  EXPECT_EQ(inserted().items.size(), 2U);
}

TEST_F(Insert, LeavesNothingBehind) {
  // What is published refers to the log, so whoever keeps an item keeps the log.
  const auto owners = log.use_count();
  {
    Host anew{services()};
    EXPECT_TRUE(anew.insert(Text{}));
  }
  EXPECT_EQ(log.use_count(), owners);
}

TEST_F(Insert, TellsTheObserverEveryCall) {
  EXPECT_EQ(inserted().items.size(), 2U);
  std::size_t finds = 0;
  for (const auto& event : observer->events) {
    finds += event.kind == RecordingObserver::Event::Kind::kCallReturned && event.name == "C_FindObjects"
                 ? 1U
                 : 0U;
  }
  EXPECT_EQ(finds, script.countOf("C_FindObjects"));
}

// ---- What goes wrong ----

TEST_F(Insert, NamesTheCallThatFailed) {
  struct Row {
    const char* function;
    std::size_t call;  ///< of that function, from 0; those before are not the token's
    CK_RV code;
    const char* why;
  };
  const Row kRows[] = {
      // The token cannot be described.
      {"C_GetTokenInfo", 1, CKR_DEVICE_ERROR, "C_GetTokenInfo answered CKR_DEVICE_ERROR (0x30)"},
      {"C_GetSlotList", 2, CKR_DEVICE_MEMORY, "C_GetSlotList answered CKR_DEVICE_MEMORY (0x31)"},
      // The card session cannot be opened.
      {"C_OpenSession", 2, CKR_SESSION_COUNT, "C_OpenSession answered CKR_SESSION_COUNT (0xB1)"},
      {"C_GetSessionInfo", 0, CKR_DEVICE_ERROR, "C_GetSessionInfo answered CKR_DEVICE_ERROR (0x30)"},
      // The objects cannot be found or read.
      {"C_FindObjectsInit", 0, CKR_DEVICE_ERROR, "C_FindObjectsInit answered CKR_DEVICE_ERROR (0x30)"},
      {"C_FindObjectsInit", 1, CKR_DEVICE_ERROR, "C_FindObjectsInit answered CKR_DEVICE_ERROR (0x30)"},
      {"C_FindObjects", 1, CKR_DEVICE_REMOVED, "C_FindObjects answered CKR_DEVICE_REMOVED (0x32)"},
      {"C_GetAttributeValue", 0, CKR_DEVICE_ERROR, "C_GetAttributeValue answered CKR_DEVICE_ERROR (0x30)"},
      // Reading a value again.
      {"C_GetAttributeValue", 2, CKR_DEVICE_ERROR, "C_GetAttributeValue answered CKR_DEVICE_ERROR (0x30)"},
  };
  for (const Row& row : kRows) {
    SCOPED_TRACE(std::string{row.function} + " " + std::to_string(row.call));
    script.reset();
    setCertificate({});
    script.failCallOf(row.function, row.call, row.code);
    EXPECT_THAT(whyNotListed(), StartsWith(row.why));
    EXPECT_TRUE(script.fired());
  }
}

TEST_F(Insert, NamesTheFirstFailedCallWhenNoSessionCanBeOpened) {
  script.failCallOf("C_OpenSession", 0, CKR_SESSION_COUNT, Times::kFromThenOn);
  EXPECT_THAT(whyNotListed(), StartsWith("C_OpenSession answered CKR_SESSION_COUNT (0xB1)"));
}

TEST_F(Insert, TellsOfTokenInformationWithoutText) {
  script.card().info.label[0] = 0;
  script.card().info.serialNumber[0] = 0;
  EXPECT_EQ(whyNotListed(), "its token information has no text");
}

TEST_F(Insert, TakesACardInEachOfTenReadersAndTellsOfMore) {
  for (int i = 0; i < 9; ++i) script.addSlot("Reader " + std::to_string(i), emptyCard("C", "1"));
  EXPECT_EQ(inserted().items.size(), 2U);
  script.addSlot("Reader 9", emptyCard("C", "1"));
  EXPECT_THAT(whyNotListed(), StartsWith("C_GetSlotList answered CKR_BUFFER_TOO_SMALL (0x150)"));
  EXPECT_THAT(std::string{failureOf(host.insert(Text{})).advice.words()}, HasSubstr("10 readers"));
}

TEST_F(Insert, TellsOfACardThatIsGoneInTheMeantime) {
  script.failCallOf("C_GetTokenInfo", 1, CKR_TOKEN_NOT_PRESENT, Times::kFromThenOn);
  EXPECT_THAT(whyNotListed(), StartsWith("C_GetTokenInfo answered CKR_TOKEN_NOT_PRESENT (0xE0)"));
}

// To prepare a card empties it.
TEST_F(Insert, AdvisesToPrepareNoCardThatIsOnlyPulled) {
  script.card().info.flags &= ~static_cast<CK_FLAGS>(CKF_TOKEN_INITIALIZED);
  for (const CK_RV code : {CKR_DEVICE_REMOVED, CKR_DEVICE_ERROR, CKR_GENERAL_ERROR}) {
    SCOPED_TRACE(code);
    script.failCallOf("C_FindObjects", 0, code);
    const Failure failure = failureOf(host.insert(Text{u"Reader A 00"}));
    EXPECT_EQ(failure.kind,
              code == CKR_DEVICE_REMOVED ? FailureKind::kCardGone : FailureKind::kCardEnumerationFailed);
    EXPECT_THAT(std::string{failure.advice.words()}, Not(HasSubstr("prepare")));
  }
}

TEST_F(Insert, DoesNotCallACardBareThatCannotBeRead) {
  const std::pair<CK_RV, FailureKind> kRows[] = {
      {CKR_DEVICE_ERROR, FailureKind::kCardEnumerationFailed},
      {CKR_TOKEN_NOT_RECOGNIZED, FailureKind::kCardEnumerationFailed},
      {CKR_DEVICE_REMOVED, FailureKind::kCardGone},
  };
  Card bare = emptyCard("BARE", "2");
  bare.info.flags = CKF_RNG;
  script.addSlot("Reader B 00", bare);
  for (const auto& [code, kind] : kRows) {
    SCOPED_TRACE(code);
    script.hook<&CK_FUNCTION_LIST::C_GetTokenInfo>(
        [answer = code](auto real, CK_SLOT_ID slot, CK_TOKEN_INFO_PTR info) {
          return slot == kSlot ? answer : real(slot, info);
        });
    const Failure failure = failureOf(host.insert(Text{}));
    EXPECT_EQ(failure.kind, kind);
    EXPECT_THAT(failure.what, HasSubstr("\"Reader A 00\""));
    EXPECT_THAT(failure.why, StartsWith("C_GetTokenInfo answered CKR_"));
    EXPECT_EQ(failure.advice.words().find("initialise"), std::string::npos);
  }
}

TEST_F(Insert, ExplainsEveryFailure) {
  forEachFailingCall(script, CKR_DEVICE_ERROR, [&](FailPoint& point) {
    setCertificate({});
    point.arm();
    const auto outcome = host.insert(Text{});
    if (!outcome) {
      EXPECT_TRUE(point.fired());
      expectPresentable(outcome.failure());
      EXPECT_NE(outcome.failure().kind, FailureKind::kInternal);
    }
  });
  EXPECT_EQ(script.openSessions().size(), 1U);
}

}  // namespace
}  // namespace mirel::test
