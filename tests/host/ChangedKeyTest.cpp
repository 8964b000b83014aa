/// Keys that another program replaces or removes while their card stays in the reader.

#include "host/DoctorTrialsTest.h"
#include "host/KeyAbility.h"
#include "host/KeyChoice.h"
#include "support/FakeCardService.h"

namespace mirel::test {
namespace {

using ::testing::Contains;
using enum FindingID;

class ChangedKey : public CardReportTest {
 protected:
  ChangedKey() { addKey("01", "Key"); }

  /// Puts objects of the other key in the place of all.
  void renew() {
    clearCard();
    addKey("01", "Key", kForSigning, otherRsa());
  }

  /// The report about the card after a change.
  template <typename Change>
  [[nodiscard]] CardReport reportAfter(const Change& change) {
    const InsertedCard card = inserted();
    change();
    return host.examine(card, true);
  }
};

TEST_F(ChangedKey, IsToldAsSuchAlone) {
  const struct {
    const char* name;
    std::function<void()> change;
    const char* evidence;
  } rows[] = {
      {"renewed", [&] { renew(); }, "its certificate is another one now"},
      {"all removed", [&] { clearCard(); }, "its certificate is not on the card any more"},
      {"moved to another ID",
       [&] {
         clearCard();
         addKey("02", "Key");
       },
       "its certificate is not on the card any more"},
      {"public key removed",
       [&] {
         clearCard();
         addPrivateKey("01", "Key");
         addCertificate("01", "Key");
       },
       "its public key is not on the card any more"},
  };
  for (const auto& [name, change, evidence] : rows) {
    SCOPED_TRACE(name);
    clearCard();
    addKey("01", "Key");
    const CardReport report = reportAfter(change);
    const Finding finding = theFinding(report, kCardChanged);
    EXPECT_EQ(finding.subject, "key 3031");
    EXPECT_EQ(finding.evidence, evidence);
    for (const char* other : {"MT-C01", "MT-C10"}) EXPECT_THAT(troubles(report), Not(Contains(other)));
    ASSERT_EQ(report.keys.size(), 1U);
    EXPECT_EQ(report.keys[0].works, "nothing: it was changed since the card was inserted");
  }
}

TEST_F(ChangedKey, LeavesTheOtherKeysAsTheyAre) {
  addKey("02", "Other");
  const CardReport report = reportAfter([&] {
    clearCard();
    addKey("01", "Key", kForSigning, otherRsa());
    addKey("02", "Other");
  });
  EXPECT_THAT(troubles(report), ElementsAre("MT-T07"));
  EXPECT_EQ(theFinding(report, kCardChanged).severity, Severity::kWarning);
  EXPECT_FALSE(report.keys[1].worksForNothing);
}

TEST_F(ChangedKey, IsNotSeenWhereNothingChangedOrNotAllWasRead) {
  EXPECT_THAT(troubles(reportAfter([] {})), IsEmpty());
  const CardReport report = reportAfter([&] {
    renew();
    script.failCallOf("C_FindObjects", 0, CKR_DEVICE_ERROR);
  });
  EXPECT_THAT(troubles(report), IsEmpty());
}

TEST_F(ChangedKey, IsNotSaidOfACardThatIsOutBeforeTheModuleNotices) {
  const auto service = std::make_shared<FakeCardService>();
  service->view.readers = {{.name = "Reader A 00", .card = ServiceReader::Card::kPresent}};
  PlatformServices mine = services();
  mine.cardService = service;
  Host served{mine};
  const InsertedCard card = *served.insert(Text{});
  clearCard();
  service->view.readers.front().card = ServiceReader::Card::kNone;
  const CardReport report = served.examine(card, true);
  EXPECT_EQ(theFinding(report, kCardWentAway).evidence,
            "the card service has seen it going, and the module lists less than before");
  EXPECT_THAT(troubles(report), IsEmpty());
}

TEST_F(ChangedKey, IsWhyASignatureDoesNotVerify) {
  const InsertedCard card = inserted();
  renew();
  const Failure failure = explainedBy(host.examine(card, true), keysOf(card).at(0),
                                      {FailureKind::kVerificationFailed, "there is no good signature",
                                       "it does not verify", "try another key"});
  EXPECT_EQ(
      failure.why,
      "it does not verify: the key or its certificate was changed since the card was inserted (key 3031: "
      "its certificate is another one now)");
}

class ChangedKeyInTrials : public DoctorTrials {};

TEST_F(ChangedKeyInTrials, IsNotTheFaultOfTheModule) {
  pins.whenAsked = [&] {
    for (auto& [handle, object] : script.card().objects) {
      const auto value = object.attributes.find(CKA_VALUE);
      if (value != object.attributes.end() && value->second == key.certificate(kForSigning))
        value->second = SoftwareKey::rsa(kBits, "other").certificate(kForSigning);
    }
  };
  const Diagnosis found = diagnosis();
  EXPECT_THAT(codesOfCheck(found, "private keys"), Contains("MT-T07"));
  EXPECT_THAT(checkIn(found, "signatures").evidence, HasSubstr("was changed on the card, not tried"));
  EXPECT_THAT(codesOf(found), Not(Contains("MT-K08")));
}

}  // namespace
}  // namespace mirel::test
