#include <set>

#include "host/HostTest.h"

namespace mirel::test {
namespace {

using Names = std::set<std::pair<std::string, std::string>>;

/// A card with a published pair ("MyKey") and objects of every kind that are not published.
class SecondLook : public InsertedCardTest {
 protected:
  void makeCard() {
    setCertificate({});
    addKeyAndCertificate(bytesOf("02"), bytesOf("Second"), {});
    script.addObject(certificate(bytesOf("03"), bytesOf("Without key"), testCertificate({})));
    script.addObject(ecPublicKey(bytesOf("04"), bytesOf("Without certificate"), p256Params(), p256Point(1)));
    script.addObject(ecPublicKey(bytesOf("05"), bytesOf("Broken"), p256Params(), p256Point(2)));
    script.addObject(certificate(bytesOf("05"), bytesOf("Broken"), patternValue(300, 1)));
  }

  /// Kind and label of what is said not to be published.
  [[nodiscard]] static Names namesOf(const CardReport& report) {
    Names names;
    for (const UnpublishedObject& object : report.unpublished) {
      if (!object.unread) names.emplace(object.kind, object.label.toUtf8());
    }
    return names;
  }

  const Names kLeftOut{{"certificate", "Without key"},
                       {"public key", "Without certificate"},
                       {"public key", "Broken"},
                       {"certificate", "Broken"}};
};

TEST_F(SecondLook, TellsWhatIsNotPublished) {
  makeCard();
  const CardReport report = host.examine(inserted());
  EXPECT_EQ(namesOf(report), kLeftOut);
  EXPECT_THAT(report.failedRead, IsEmpty());
}

TEST_F(SecondLook, NeverSaysOfAPublishedObjectThatItIsNotWhateverCallFails) {
  for (const CK_RV code : {CKR_DEVICE_ERROR, CKR_DEVICE_REMOVED}) {
    forEachFailingCall(script, code, [&](FailPoint& point) {
      script.setInitialised(true);
      makeCard();
      const InsertedCard card = inserted();
      point.arm();
      const CardReport report = host.examine(card);
      for (const auto& name : namesOf(report)) {
        EXPECT_TRUE(kLeftOut.contains(name)) << name.first << " " << name.second;
      }
      for (const UnpublishedObject& object : report.unpublished) {
        if (object.unread) {
          EXPECT_THAT(object.reason, HasSubstr("could not be read now, C_GetAttributeValue"));
        }
        EXPECT_FALSE(object.blocksCard);
      }
      if (!point.fired()) {
        EXPECT_EQ(namesOf(report), kLeftOut);
      }
      const bool closeFailed = script.calls().back().function == "C_CloseSession" ||
                               script.calls().back().function == "C_FindObjectsFinal";
      if (point.fired() && point.times() == Times::kOnce && report.failedRead.empty()) {
        EXPECT_TRUE(closeFailed);
      }
    });
  }
}

TEST_F(SecondLook, TellsOfObjectsThatAreNotOnTheToken) {
  setCertificate({});
  Object& key = script.object(kPublicKey);
  key = key.with(CKA_TOKEN, boolValue(false));
  const CardReport report = host.examine(inserted());
  EXPECT_EQ(namesOf(report), (Names{{"certificate", "MyKey"}, {"public key", "MyKey"}}));
  for (const UnpublishedObject& object : report.unpublished)
    EXPECT_THAT(object.reason, HasSubstr("perhaps CKA_TOKEN is not true"));
}

TEST_F(SecondLook, TellsTheCallThatFailed) {
  const InsertedCard card = inserted();
  script.failCallOf("C_OpenSession", 0, CKR_SESSION_COUNT);
  const CardReport report = host.examine(card);
  EXPECT_THAT(report.unpublished, IsEmpty());
  EXPECT_THAT(report.failedRead, StartsWith("C_OpenSession answered CKR_SESSION_COUNT"));
}

TEST_F(SecondLook, GivesNoReasonThatMayBeWrong) {
  makeCard();
  const InsertedCard card = inserted();
  script.failCallOf("C_FindObjects", 0, CKR_DEVICE_ERROR);  // no key is found
  for (const UnpublishedObject& object : host.examine(card).unpublished) {
    if (object.label == Text{u"Without key"}) {
      EXPECT_THAT(object.reason, HasSubstr("why cannot be told now, C_FindObjects answered"));
    }
  }
}

TEST_F(SecondLook, DoesNotBlameTheCardWhenTheListingFailsForAnotherReason) {
  script.failCallOf("C_GetAttributeValue", 0, CKR_DEVICE_ERROR, Times::kFromThenOn);
  const Failure failure = failureOf(host.insert(Text{}));
  EXPECT_THAT(failure.why, StartsWith("C_GetAttributeValue answered CKR_DEVICE_ERROR (0x30)"));
  EXPECT_THAT(std::string{failure.advice.words()}, Not(HasSubstr("issuer")));
}

}  // namespace
}  // namespace mirel::test
