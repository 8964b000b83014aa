#include "host/ReaderWatch.h"

#include <gmock/gmock.h>

#include <sstream>

#include "HostTest.h"

namespace mirel::test {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;
using SeenCard = WatchedReader::Card;
using SeenReaders = std::vector<WatchedReader>;

std::string eventTexts(const std::vector<ReaderEvent>& events) {
  std::string all;
  for (const ReaderEvent& event : events)
    all += (event.kind == ReaderEvent::Kind::kInsertion ? "+" : "-") + event.reader.toUtf8();
  return all;
}

/// "A B=1 C=? ?": A is empty, B holds the card 1, of C nothing is known, and there is another one. "=*": a
/// card of which nothing else is known.
SeenReaders seenReaders(const std::string& text, bool isServices = true) {
  SeenReaders readers;
  std::istringstream words{text};
  for (std::string word; words >> word;) {
    if (word == "?") {
      readers.push_back({Text{}, SeenCard::kUnknown, {}, isServices});
      continue;
    }
    const std::string card = word.size() > 2 ? word.substr(2) : "";
    readers.push_back({Text::fromUtf8(word.substr(0, 1)),
                       card.empty()  ? SeenCard::kNone
                       : card == "?" ? SeenCard::kUnknown
                                     : SeenCard::kPresent,
                       card == "*" || card == "?" ? "" : card, isServices});
  }
  return readers;
}

TEST(ReaderWatch, TurnsWhatIsSeenIntoEvents) {
  const struct {
    const char* name;
    std::vector<std::pair<const char*, const char*>> steps;  ///< what is seen, and the events
  } rows[] = {
      {"nothing", {{"", ""}, {"", ""}}},
      {"insertion and removal", {{"A", ""}, {"A=1", "+A"}, {"A=1", ""}, {"A", "-A"}, {"A", ""}}},
      {"card at the start", {{"A=1", "+A"}}},
      {"swap within one look", {{"A=1", "+A"}, {"A=2", "-A+A"}, {"A=2", ""}}},
      {"reader with a card comes and goes", {{"", ""}, {"A=1", "+A"}, {"", "-A"}}},
      {"reader without a card goes", {{"A", ""}, {"", ""}}},
      {"two readers", {{"A=1 B", "+A"}, {"A=1 B=1", "+B"}, {"A B=1", "-A"}, {"B=1", ""}}},
      {"reader that moves in the list", {{"A=1 B=2", "+A+B"}, {"B=2 A=1", ""}}},
      {"not known just now", {{"A=1", "+A"}, {"A=?", ""}, {"A=1", ""}, {"A=?", ""}, {"A", "-A"}}},
      {"not known, then another card", {{"A=1", "+A"}, {"A=?", ""}, {"A=2", "-A+A"}}},
      {"not known at the start", {{"A=?", ""}, {"A=1", "+A"}}},
      {"card that cannot be told from others", {{"A=*", "+A"}, {"A=1", ""}, {"A=2", "-A+A"}, {"A=*", ""}}},
      {"two readers with one name", {{"A=1 A=2", "+A"}, {"A=1 A", ""}, {"A A=2", "-A"}}},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    ReaderWatch watch;
    for (const auto& [seen, events] : row.steps) EXPECT_EQ(eventTexts(watch.take(seenReaders(seen))), events);
  }
}

TEST(ReaderWatch, ComparesNoCardOfTheServiceWithOneOfTheModule) {
  ReaderWatch watch;
  EXPECT_EQ(eventTexts(watch.take(seenReaders("A=1", false))), "+A");
  EXPECT_EQ(eventTexts(watch.take(seenReaders("A=2", true))), "");
  EXPECT_EQ(eventTexts(watch.take(seenReaders("A=3", true))), "-A+A");
}

TEST(WatchedReaders, OfTheServiceTellWhenACardWasAway) {
  const ServiceReader reader{"Reader A", ServiceReader::Card::kPresent, false, false, "3B", 1};
  const CardServiceView before{CardServiceView::State::kAnswers, {}, {reader}, 1};
  CardServiceView same = before;
  same.readers[0].inUse = true;
  CardServiceView counted = before;
  counted.readers[0].changes = 3;
  CardServiceView otherCard = before;
  otherCard.readers[0].atr = "3B00";
  CardServiceView restarted = before;
  restarted.connection = 2;
  EXPECT_EQ(watchedReaders(same), watchedReaders(before));
  for (const CardServiceView& other : {counted, otherCard, restarted})
    EXPECT_NE(watchedReaders(other), watchedReaders(before));
  EXPECT_EQ(watchedReaders(before)[0].name, Text::fromUtf8("Reader A"));
  CardServiceView mute = before;
  mute.readers[0].card = ServiceReader::Card::kMute;
  EXPECT_EQ(watchedReaders(mute)[0].card, SeenCard::kPresent);
}

/// What the scripted module's slots are seen as.
class WatchedSlots : public HostTest {
 protected:
  [[nodiscard]] SeenReaders seen() {
    const auto slots = host.slots();
    EXPECT_TRUE(slots);
    return slots ? watchedReaders(*slots) : SeenReaders{};
  }
};

TEST_F(WatchedSlots, HoldACardWhereATokenIsInitialised) {
  EXPECT_EQ(seen(),
            (SeenReaders{{Text::fromUtf8("Reader A 00"), SeenCard::kPresent, "TESTCARD\n1234567890ABCDEF"}}));
  script.card().info.flags &= ~CK_FLAGS{CKF_TOKEN_INITIALIZED};
  EXPECT_EQ(seen()[0].card, SeenCard::kNone);
  script.pullCard();
  EXPECT_EQ(seen()[0].card, SeenCard::kNone);
}

TEST_F(WatchedSlots, HoldACardThatCannotBeRead) {
  script.failCallOf("C_GetTokenInfo", 0, CKR_DEVICE_ERROR);
  EXPECT_EQ(seen(), (SeenReaders{{Text::fromUtf8("Reader A 00"), SeenCard::kPresent}}));
}

TEST_F(WatchedSlots, HaveNoNameWhereTheyCannotBeRead) {
  script.failCallOf("C_GetSlotInfo", 0, CKR_DEVICE_ERROR);
  EXPECT_EQ(seen(), (SeenReaders{{Text{}, SeenCard::kUnknown}}));
}

/// The two sources as a script plays them, with a clock of its own.
class ReaderSourcesTest : public ::testing::Test {
 protected:
  void service(const char* readers) { sources.serviceTells(true, seenReaders(readers)); }
  void silentService() { sources.serviceTells(false, {}); }
  /// A look at the module that takes that time.
  void look(const std::optional<std::string>& slots, milliseconds took = milliseconds{1}) {
    sources.lookBegins(now);
    EXPECT_FALSE(sources.nextLook());
    now += took;
    sources.lookEnds(now, slots ? std::optional{seenReaders(*slots, false)} : std::nullopt);
  }
  /// How long it is until the next look; nothing: there is none.
  [[nodiscard]] std::optional<milliseconds> pause() const {
    const auto next = sources.nextLook();
    if (!next) return std::nullopt;
    return std::chrono::duration_cast<milliseconds>(std::max(*next, now) - now);
  }

  ReaderSources sources;
  ReaderSources::Time now = ReaderSources::Time{} + seconds{1000};
};

TEST_F(ReaderSourcesTest, AskTheServiceFirst) { EXPECT_FALSE(pause()); }

TEST_F(ReaderSourcesTest, LeaveTheModuleAloneOnceTheServiceHasAllItsSlots) {
  service("A B=1");
  EXPECT_EQ(pause(), milliseconds{0});
  look("A B=x");
  EXPECT_FALSE(pause());
  EXPECT_EQ(sources.readers(), seenReaders("A B=1"));
}

TEST_F(ReaderSourcesTest, AskTheModuleForSlotsThatTheServiceDoesNotHave) {
  service("A=1");
  look("A=x S=y");
  EXPECT_EQ(pause(), ReaderSources::kShortestPause);
  SeenReaders expected = seenReaders("A=1");
  expected.push_back(seenReaders("S=y", false).front());
  EXPECT_EQ(sources.readers(), expected);
}

TEST_F(ReaderSourcesTest, AskTheModuleWhereTheServiceIsSilent) {
  silentService();
  EXPECT_EQ(pause(), milliseconds{0});
  look("");
  EXPECT_EQ(pause(), ReaderSources::kShortestPause);
  look("S=y");
  EXPECT_EQ(sources.readers(), seenReaders("S=y", false));
  service("A");
  look("A");
  EXPECT_FALSE(pause());
}

TEST_F(ReaderSourcesTest, HaveNoReaderOfAServiceThatWasStopped) {
  service("A=1");
  look("A=x");
  silentService();
  EXPECT_THAT(sources.readers(), IsEmpty());
  EXPECT_EQ(pause(), milliseconds{0});
}

TEST_F(ReaderSourcesTest, LookTheLessOftenTheLongerALookTakes) {
  silentService();
  look("", seconds{2});
  EXPECT_EQ(pause(), seconds{18});
  look(std::nullopt, seconds{30});
  EXPECT_EQ(pause(), ReaderSources::kLongestPause);
}

TEST_F(ReaderSourcesTest, KeepWhatWasSeenWhenALookFails) {
  silentService();
  look("S=y T=z");
  look(std::nullopt);
  EXPECT_EQ(sources.readers(), seenReaders("S=y T=z", false));
  look("T=z ?");
  EXPECT_EQ(sources.readers(), seenReaders("T=z S=?", false));
}

}  // namespace
}  // namespace mirel::test
