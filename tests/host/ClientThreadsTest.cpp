/// Several clients of one token, each in a thread of its own. Under ThreadSanitizer too.

#include <atomic>

#include "host/KeyClientTest.h"
#include "support/Threads.h"

namespace mirel::test {
namespace {

constexpr int kSignaturesPerThread = 50;

class ClientThreads : public KeyClientTest {
 protected:
  ClientThreads() { card = *shared.insert(Text{}); }

  void TearDown() override {
    EXPECT_FALSE(script.callsOverlapped());
    KeyClientTest::TearDown();
  }

  [[nodiscard]] std::unique_ptr<KeyClient> clientOfShared() { return *shared.newClient(card); }

  /// What is wrong with a new signature of that message; empty when it verifies.
  [[nodiscard]] std::string refusalOfSignature(KeyClient& by, const Value& message) const {
    GivenInput input{{message}};
    GivenPins pin{{u"123456"}};
    const auto made = by.sign(published(u"01"), kSignByPss, input, pin);
    if (!made) return made.failure().what + ": " + made.failure().why;
    const auto good = verified(kSignByPss, *made);
    return good ? std::string{} : good.failure().why;
  }

  Host shared{servicesForAThread()};
};

TEST_F(ClientThreads, GetSignaturesThatVerify) {
  const auto first = clientOfShared();
  const auto second = clientOfShared();
  std::atomic<int> numGood{0};
  const auto signOften = [&](KeyClient& by, std::uint8_t mark) {
    for (int i = 0; i < kSignaturesPerThread; ++i) {
      const std::string refusal = refusalOfSignature(by, Value{mark, static_cast<std::uint8_t>(i)});
      EXPECT_EQ(refusal, "");
      if (refusal.empty()) ++numGood;
    }
  };
  runAtOnce({[&] { signOften(*first, 1); }, [&] { signOften(*second, 2); }});
  EXPECT_EQ(numGood, 2 * kSignaturesPerThread);
}

TEST_F(ClientThreads, LookForTheCardAtOnce) {
  const auto first = clientOfShared();
  const auto second = clientOfShared();
  script.pullCard();
  std::atomic<int> numGone{0};
  const auto sign = [&](KeyClient& by) {
    GivenInput input{{Value{1}}};
    GivenPins pin{{u"123456"}};
    const auto made = by.sign(published(u"01"), kSignByPss, input, pin);
    if (!made && made.failure().kind == FailureKind::kCardGone) ++numGone;
  };
  runAtOnce({[&] { sign(*first); }, [&] { sign(*second); }});
  EXPECT_EQ(numGone, 2);
}

}  // namespace
}  // namespace mirel::test
