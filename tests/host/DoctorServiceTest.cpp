/// A card service that stops during an examination.

#include "host/DoctorTest.h"
#include "host/HostTest.h"
#include "support/FakeCardService.h"

namespace mirel::test {
namespace {

using ::testing::ElementsAre;
using InReader = ServiceReader::Card;
using State = CardServiceView::State;

class DoctorService : public HostTest {
 protected:
  void TearDown() override {
    leavesOpen(script.openSessions());  // the inserted cards'
    HostTest::TearDown();
  }

  /// The module in the user's home, which is trusted: the checkout may belong to somebody else.
  [[nodiscard]] Diagnosis diagnosis() {
    PlatformServices mine = services();
    mine.cardService = service;
    return diagnose(mine, {{std::nullopt, true}});
  }

  std::shared_ptr<FakeCardService> service = std::make_shared<FakeCardService>();
};

TEST_F(DoctorService, IsToBlameWhereItHasStoppedMeanwhileAndNotTheCard) {
  for (const auto& [call, answer] :
       {std::pair{"C_FindObjects", CKR_DEVICE_REMOVED}, {"C_OpenSession", CKR_GENERAL_ERROR}}) {
    SCOPED_TRACE(call);
    script.reset();
    script.failCallOf(call, 0, answer, Times::kFromThenOn);
    service->view = {State::kAnswers, {}, {{"Reader A 00", InReader::kPresent, false, false, "3B00"}}};
    service->whenAsked = {};
    EXPECT_THAT(codesOf(diagnosis()), ::testing::Not(::testing::Contains("MT-R02")));
    service->whenAsked = [this, first = service->looks + 1] {
      if (service->looks > first) service->view = {State::kSilent, "no pcscd", {}};
    };
    const Diagnosis found = diagnosis();
    EXPECT_THAT(codesOf(found), ElementsAre("MT-R02"));
    EXPECT_EQ(found.findings().front().evidence, "it answered at first; now no pcscd");
  }
}

TEST_F(DoctorService, IsNotToBlameForTheCardOfAReaderThatItNeverHad) {
  script.failCallOf("C_FindObjects", 0, CKR_DEVICE_REMOVED, Times::kFromThenOn);
  service->view = {State::kAnswers, {}, {{"Another Reader", InReader::kNone, false, false, ""}}};
  service->whenAsked = [this, first = service->looks + 1] {
    if (service->looks > first) service->view = {State::kSilent, "no pcscd", {}};
  };
  const auto codes = codesOf(diagnosis());
  EXPECT_THAT(codes, ::testing::Not(::testing::Contains("MT-R02")));
  EXPECT_THAT(codes, ::testing::Contains("MT-T04"));
}

TEST_F(DoctorService, IsToBlameForTheCardOfItsOwnReaderAlone) {
  (void)script.addSlot("Reader B", emptyCard("B", "2"));
  script.failCallOf("C_FindObjects", 0, CKR_DEVICE_REMOVED, Times::kFromThenOn);
  service->view = {State::kAnswers, {}, {{"Reader A 00", InReader::kPresent, false, false, "3B00"}}};
  service->whenAsked = [this, first = service->looks + 1] {
    if (service->looks > first) service->view = {State::kSilent, "no pcscd", {}};
  };
  const Diagnosis found = diagnosis();
  EXPECT_EQ(findingIn(found, FindingID::kCardServiceSilent).subject, "");
  EXPECT_THAT(findingIn(found, FindingID::kCardWentAway).subject, ::testing::HasSubstr("Reader B"));
  EXPECT_THAT(codesOf(found), ::testing::UnorderedElementsAre("MT-R02", "MT-T04"));
}

}  // namespace
}  // namespace mirel::test
