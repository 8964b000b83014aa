#include "platform/CardService.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>

#include "ScopedVariable.h"
#include "posix/PcscView.h"

namespace mirel {
namespace {

using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::SizeIs;
using enum CardServiceView::State;
using Card = ServiceReader::Card;

CardServiceView viewOf(const char* library) { return cardServiceOf(library, kCardServiceLimit)->look(); }

TEST(CardService, IsNotThereWithoutItsLibraryOrItsCalls) {
  for (const char* library : {"/no/such/libpcsclite.so.1", MIREL_LOADER_GOOD}) {
    SCOPED_TRACE(library);
    const CardServiceView view = viewOf(library);
    EXPECT_EQ(view.state, kNotThere);
    EXPECT_THAT(view.evidence, HasSubstr(library));
  }
}

TEST(CardService, IsSilentWhereItDoesNotRun) {
  const CardServiceView view = viewOf(MIREL_FAKE_PCSC);
  EXPECT_EQ(view.state, kSilent);
  EXPECT_EQ(view.evidence, "SCardEstablishContext answered SCARD_E_NO_SERVICE (0x8010001D)");
}

TEST(CardService, IsSilentWhereACallDoesNotComeBack) {
  const ScopedVariable readers{"MIREL_PCSC_READERS", "Reader=10"};
  for (const char* function : {"SCardEstablishContext", "SCardListReaders", "SCardGetStatusChange"}) {
    SCOPED_TRACE(function);
    const ScopedVariable hangs{"MIREL_PCSC_HANGS", function};
    const CardServiceView view = cardServiceOf(MIREL_FAKE_PCSC, std::chrono::milliseconds{50})->look();
    EXPECT_EQ(view.state, kSilent);
    EXPECT_EQ(view.evidence, "no answer within 50 ms");
  }
}

/// What holds for the library in each of its two forms.
class PcscForm : public ::testing::TestWithParam<std::function<CardServiceView()>> {
 protected:
  [[nodiscard]] static CardServiceView look() { return GetParam()(); }
};

TEST_P(PcscForm, TellsTheReadersWithTheirStateAndTheAtr) {
  const ScopedVariable readers{"MIREL_PCSC_READERS",
                               "Empty=10012;Card=10022:3B7A1800;Held=1A0:3B;Mute=220;Used=120:3B00"};
  const CardServiceView view = look();
  EXPECT_EQ(view.state, kAnswers);
  ASSERT_THAT(view.readers, SizeIs(5));
  const struct {
    const char* name;
    Card card;
    bool exclusive;
    bool inUse;
    const char* atr;
  } rows[] = {{"Empty", Card::kNone, false, false, ""},
              {"Card", Card::kPresent, false, false, "3B7A1800"},
              {"Held", Card::kPresent, true, true, "3B"},
              {"Mute", Card::kMute, false, false, ""},
              {"Used", Card::kPresent, false, true, "3B00"}};
  for (std::size_t i = 0; i < std::size(rows); ++i) {
    SCOPED_TRACE(rows[i].name);
    EXPECT_EQ(view.readers[i].name, rows[i].name);
    EXPECT_EQ(view.readers[i].card, rows[i].card);
    EXPECT_EQ(view.readers[i].exclusive, rows[i].exclusive);
    EXPECT_EQ(view.readers[i].inUse, rows[i].inUse);
    EXPECT_EQ(view.readers[i].atr, rows[i].atr);
  }
}

TEST_P(PcscForm, AnswersWhereThereIsNoReader) {
  const ScopedVariable readers{"MIREL_PCSC_READERS", ""};
  EXPECT_EQ(look().state, kAnswers);
  EXPECT_THAT(look().readers, IsEmpty());
}

TEST_P(PcscForm, DoesNotKnowTheCardOfAReaderThatHasGone) {
  const ScopedVariable readers{"MIREL_PCSC_READERS", "Reader=22:3B"};
  const ScopedVariable gone{"MIREL_PCSC_GONE", "1"};
  const CardServiceView view = look();
  ASSERT_THAT(view.readers, SizeIs(1));
  EXPECT_EQ(view.readers[0].card, Card::kUnknown);
}

TEST_P(PcscForm, TrustsNoLengthOfTheLibrary) {
  const ScopedVariable readers{"MIREL_PCSC_READERS", "Reader=22:3B00"};
  {
    const ScopedVariable atr{"MIREL_PCSC_ATR", "4000"};
    const CardServiceView view = look();
    ASSERT_THAT(view.readers, SizeIs(1));
    EXPECT_EQ(view.readers[0].atr, "");
  }
  // The names end where the list does, or with a zero behind each of them.
  for (const char* claimed : {"0", "3", "60000"}) {
    SCOPED_TRACE(claimed);
    const ScopedVariable length{"MIREL_PCSC_LENGTH", claimed};
    const CardServiceView view = look();
    EXPECT_EQ(view.state, kAnswers);
    EXPECT_EQ(view.readers.size(), std::string{claimed} == "60000" ? 1U : 0U);
  }
  const ScopedVariable length{"MIREL_PCSC_LENGTH", "4294967295"};
  EXPECT_EQ(look().state, kSilent);
}

INSTANTIATE_TEST_SUITE_P(OfLinux, PcscForm, ::testing::Values([] { return viewOf(MIREL_FAKE_PCSC); }));
INSTANTIATE_TEST_SUITE_P(OfMacOS, PcscForm, ::testing::Values([] {
                           return pcsc::View<pcsc::AppleForm>::of(MIREL_FAKE_PCSC_APPLE);
                         }));

}  // namespace
}  // namespace mirel
