/// Cards that are out before the module notices: the card service is asked, which takes its time as well.

#include "host/KeyClientTest.h"
#include "support/FakeCardService.h"

namespace mirel::test {
namespace {

class CardLeaving : public KeyClientTest {
 protected:
  using Card = ServiceReader::Card;

  CardLeaving() {
    tell(Card::kPresent);
    card = *served.insert(Text{});
    client = *served.newClient(card);
    service->looks = 0;
  }

  void tell(Card inReader) { service->view.readers = {{.name = "Reader A 00", .card = inReader}}; }

  /// The service notices at the second look that the card has gone.
  void takeOut() {
    service->looks = 0;
    service->whenAsked = [&] {
      if (service->looks == 2) tell(Card::kNone);
    };
  }

  [[nodiscard]] Failure loginFailure(CK_RV answer) {
    script.failCallOf("C_Login", 0, answer);
    GivenPins given{{u"123456"}};
    given.again = false;
    return failureOf(client->logIn(given));
  }

  PlatformServices servicesWithReaders() {
    PlatformServices mine = services();
    mine.cardService = service;
    return mine;
  }

  std::shared_ptr<FakeCardService> service = std::make_shared<FakeCardService>();
  Host served{servicesWithReaders()};
};

TEST_F(CardLeaving, IsWhyThereIsNoSignature) {
  EXPECT_TRUE(client->logIn(pins));
  takeOut();
  script.failCallOf("C_Sign", 0, CKR_GENERAL_ERROR);
  const Signature made = signature(kSignByPss, bytesOf("a message"));
  ASSERT_TRUE(made.fault && made.fault->failure);
  EXPECT_EQ(made.fault->failure->kind, FailureKind::kCardGone);
  EXPECT_EQ(made.fault->failure->why,
            "the card service has seen it going, and the module answered CKR_GENERAL_ERROR (0x5)");
  EXPECT_EQ(failureOf(client->logIn(pins)).kind, FailureKind::kCardGone);
}

TEST_F(CardLeaving, IsWhyNoPinIsTaken) {
  takeOut();
  const Failure failure = loginFailure(CKR_DEVICE_ERROR);
  expectPresentable(failure);
  EXPECT_EQ(failure.kind, FailureKind::kCardGone);
  EXPECT_EQ(failure.what, "the card did not stay in the reader \"Reader A 00\"");
}

TEST_F(CardLeaving, IsSeenThoughAnotherCardTookItsPlace) {
  service->whenAsked = [&] { service->view.readers.front().changes = service->looks == 2 ? 2 : 0; };
  EXPECT_EQ(loginFailure(CKR_GENERAL_ERROR).kind, FailureKind::kCardGone);
}

TEST_F(CardLeaving, IsNotSeenWhereAnotherProgramHasOnlyResetTheCard) {
  const struct {
    Card card;
    const char* atr;
  } rows[] = {{Card::kPresent, "3B01"}, {Card::kMute, ""}};
  for (const auto& afterwards : rows) {
    SCOPED_TRACE(afterwards.atr);
    service->looks = 0;
    service->whenAsked = [&, afterwards] {
      service->view.readers = {{.name = "Reader A 00", .card = Card::kPresent, .atr = "3B00", .changes = 1}};
      if (service->looks < 2) return;
      service->view.readers.front().card = afterwards.card;
      service->view.readers.front().atr = afterwards.atr;
    };
    EXPECT_EQ(loginFailure(CKR_GENERAL_ERROR).kind, FailureKind::kCardRefuses);
    EXPECT_EQ(service->looks, 2);
  }
}

TEST_F(CardLeaving, IsLookedForOnceTheFailureWasTold) {
  std::vector<std::string> told;
  client->whenItFails([&](const Failure& failure) {
    told.push_back(failure.what);
    EXPECT_EQ(service->looks, 0);
  });
  EXPECT_EQ(loginFailure(CKR_GENERAL_ERROR).kind, FailureKind::kCardRefuses);
  EXPECT_THAT(told, ElementsAre("the card did not take the PIN"));
}

TEST_F(CardLeaving, IsNotTheReasonWhereTheServiceSeesTheCardOrKnowsNothing) {
  for (const bool answers : {true, false}) {
    if (!answers) service->view = {CardServiceView::State::kSilent, "it does not run", {}};
    EXPECT_EQ(loginFailure(CKR_GENERAL_ERROR).kind, FailureKind::kCardRefuses);
  }
  service->view = {CardServiceView::State::kAnswers, {}, {{.name = "Reader B 00", .card = Card::kNone}}};
  EXPECT_EQ(loginFailure(CKR_GENERAL_ERROR).kind, FailureKind::kCardRefuses);
}

TEST_F(CardLeaving, IsNotAskedForWhereTheModuleSaysWhatFailed) {
  EXPECT_EQ(loginFailure(CKR_PIN_INCORRECT).kind, FailureKind::kPinWrong);
  EXPECT_EQ(loginFailure(CKR_USER_PIN_NOT_INITIALIZED).kind, FailureKind::kCardRefuses);
  EXPECT_EQ(service->looks, 0);
}

TEST_F(CardLeaving, IsWhyNothingIsFoundOnIt) {
  const auto leaves = [&] {
    tell(Card::kPresent);
    service->whenAsked = nullptr;
    EXPECT_TRUE(served.insert(Text{})->items.empty());
    takeOut();
    const Failure failure = failureOf(served.insert(Text{}));
    expectPresentable(failure);
    EXPECT_EQ(failure.kind, FailureKind::kCardGone);
    EXPECT_EQ(failure.why,
              "the card service has seen it going, and the module gave nothing that is published");
  };
  for (auto& [handle, object] : script.card().objects) object.attributes[CKA_TOKEN] = boolValue(false);
  leaves();
  script.card().objects.clear();
  leaves();
}

}  // namespace
}  // namespace mirel::test
