#include "host/DistinctItems.h"
#include "host/KeyChoice.h"
#include "host/KeyClientTest.h"

namespace mirel::test {
namespace {

constexpr std::size_t kPairs = 32;
constexpr std::size_t kMostInALine = 500;

/// 32 keys and as many certificates, all with one ID: 2,048 items.
class LargeCard : public InsertedCardTest {
 protected:
  LargeCard() {
    script.card().objects.clear();
    const Value id = bytesOf("01");
    const Value der = testCertificate({.key = TestKey::kRsa2048, .keyUsage = 1});
    for (std::size_t i = 0; i < kPairs; ++i) {
      script.addObject(rsaPublicKey(id, bytesOf("Key " + std::to_string(i)), patternValue(256, 1)));
      script.addObject(certificate(id, bytesOf("Certificate " + std::to_string(i)), der));
    }
  }
};

/// The system's parser; counts what it is asked.
class CountingParser final : public CertificateParser {
 public:
  [[nodiscard]] std::shared_ptr<SecCertificate> createWithData(const Bytes& der) noexcept override {
    ++timesAsked;
    return parser_->createWithData(der);
  }
  std::size_t timesAsked = 0;

 private:
  std::shared_ptr<CertificateParser> parser_ = systemCertificateParser();
};

TEST_F(LargeCard, HasEachCertificateParsedOnce) {
  PlatformServices own = services();
  const auto parser = std::make_shared<CountingParser>();
  own.certificates = parser;
  Host another{own};
  const auto outcome = another.insert(Text{});
  ASSERT_TRUE(outcome);
  EXPECT_EQ(outcome->items.size(), 2 * kPairs * kPairs);
  (void)another.examine(*outcome);
  EXPECT_EQ(parser->timesAsked, 1U);
}

TEST_F(LargeCard, IsListedWithoutRepetitions) {
  const InsertedCard card = inserted();
  const auto distinct = distinctItems(card.items);
  ASSERT_EQ(distinct.size(), 2 * kPairs);
  for (const DistinctItem& item : distinct) EXPECT_EQ(item.count, kPairs);
}

TEST_F(LargeCard, HasMessagesThatStayALine) {
  const InsertedCard card = inserted();
  for (const std::string& name : {std::string{"none"}, std::string{"Certificate"}, std::string(5000, 'x')}) {
    const Failure failure = failureOf(chooseKey(card, name));
    EXPECT_EQ(failure.kind, FailureKind::kKeyNotFound);
    EXPECT_LT(failure.what.size() + failure.why.size() + failure.advice.words().size(), kMostInALine);
  }
  EXPECT_THAT(failureOf(chooseKey(card, "none")).why, ContainsRegex("and 2[0-9] more"));
}

}  // namespace
}  // namespace mirel::test
