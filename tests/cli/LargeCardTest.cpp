#include <sys/resource.h>

#include <chrono>
#include <stdexcept>

#include "EndToEndTest.h"

namespace mirel::test {
namespace {

constexpr unsigned kPairs = 160;
constexpr std::size_t kMostInALine = 500;  // bytes
/// Of processor time. It takes less than one.
constexpr std::chrono::seconds kLongest{30};
constexpr std::size_t kLargestOutput = 256UL * 1024UL;  // bytes

/// The processor time of all children that have ended: whatever else the machine does, it stays the same.
std::chrono::microseconds timeOfChildren() {
  rusage usage{};
  if (getrusage(RUSAGE_CHILDREN, &usage) != 0) throw std::runtime_error{"no usage of children is known"};
  const auto of = [](const timeval& time) {
    return std::chrono::seconds{time.tv_sec} + std::chrono::microseconds{time.tv_usec};
  };
  return of(usage.ru_utime) + of(usage.ru_stime);
}

/// A card with 160 keys and as many certificates, all with one ID. The token publishes 51,200 items.
class LargeCardCommands : public EndToEndTest {
 protected:
  void SetUp() override {
    EndToEndTest::SetUp();
    if (IsSkipped()) return;
    std::string card = "token label=Card\n";
    for (unsigned i = 0; i < kPairs; ++i) {
      const std::string number = std::to_string(i);
      card += "public type=rsa2048 id=0x01 label=Key" + number + "\n";
      card += "certificate type=rsa2048 id=0x01 usage=digitalSignature label=Certificate" + number + "\n";
    }
    makeCards(card);
  }

  [[nodiscard]] Result timed(const std::string& command) {
    const auto start = timeOfChildren();
    const Result result = mireltoken(command);
    EXPECT_LT(timeOfChildren() - start, kLongest) << command;
    EXPECT_LT(result.out.size(), kLargestOutput) << command;
    EXPECT_LT(result.err.size(), kMostInALine) << command;
    return result;
  }
};

TEST_F(LargeCardCommands, EndInAShortTimeWithShortLines) {
  if (kHasAddressSanitizer) GTEST_SKIP() << "the time is that of the program without a sanitizer";
  EXPECT_EQ(timed("items").exitCode, 0);
  EXPECT_EQ(timed("algorithms").exitCode, 0);
  EXPECT_EQ(timed("algorithms --json").exitCode, 0);
  EXPECT_EQ(timed("certificate --key #160").exitCode, 0);
  EXPECT_EQ(timed("certificate --key none").exitCode, 12);
  const Result json = timed("items --json");
  std::size_t total = 0;
  const Json items = Json::parse(json.out)["items"];
  EXPECT_THAT(items, SizeIs(2 * kPairs));
  for (const Json& item : items) total += item["count"].get<std::size_t>();
  EXPECT_EQ(total, 2UL * kPairs * kPairs);
}

}  // namespace
}  // namespace mirel::test
