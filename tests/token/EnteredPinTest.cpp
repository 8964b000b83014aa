#include "token/ClientSessionTest.h"

namespace mirel::test {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;

/// The PIN as the user has entered it.
class EnteredPin : public ClientSessionTest {
 protected:
  EnteredPin() { leavesOpen({kCardSession, kLoginSession}); }
};

TEST_F(EnteredPin, GoesToTheCardWithItsLengthInCharacters) {
  using namespace std::string_view_literals;
  const struct {
    const char* name;
    std::u16string_view pin;
    const char* call;
  } rows[] = {
      {"one digit", u"7", "C_Login(9, 1, 37)"},
      {"four digits", u"0815", "C_Login(9, 1, 30383135)"},
      {"eight digits", u"12345678", "C_Login(9, 1, 3132333435363738)"},
      {"letters and signs", u"aZ %n", "C_Login(9, 1, 615A20256E)"},
      {"a NUL within", u"12\00034"sv, "C_Login(9, 1, 3132003334)"},
      // Oddity: as many bytes as there are characters, so the end of the PIN is missing.
      {"one character of two bytes", u"\u00E4", "C_Login(9, 1, C3)"},
      {"three characters of two bytes", u"\u00E4\u00F6\u00FC", "C_Login(9, 1, C3A4C3)"},
      {"digits and one character of three bytes", u"12\u20AC4", "C_Login(9, 1, 3132E282)"},
      {"eight characters of two bytes", u"\u00E4\u00E4\u00E4\u00E4\u00E4\u00E4\u00E4\u00E4",
       "C_Login(9, 1, C3A4C3A4C3A4C3A4)"},
      {"eight characters of three bytes", u"\u20AC\u20AC\u20AC\u20AC\u20AC\u20AC\u20AC\u20AC",
       "C_Login(9, 1, E282ACE282ACE282)"},
      // Characters outside the basic plane count twice.
      {"one astral character", u"\U0001F511", "C_Login(9, 1, F09F)"},
      {"four astral characters", u"\U0001F511\U0001F511\U0001F511\U0001F511",
       "C_Login(9, 1, F09F9491F09F9491)"},
      {"digits and an astral character", u"12\U0001F511", "C_Login(9, 1, 3132F09F)"},
      {"half a character", u"1\xD83D", "C_Login(9, 1, 31EF)"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    startAnew();
    (void)login(row.pin);
    EXPECT_THAT(script.callTexts("C_Login"), ElementsAre(row.call));
  }
}

TEST_F(EnteredPin, IsRefusedWithoutBeingTriedWhenItIsEmptyOrTooLong) {
  const std::u16string_view pins[] = {u"", u"123456789",
                                      u"\u00E4\u00E4\u00E4\u00E4\u00E4\u00E4\u00E4\u00E4\u00E4",
                                      u"\U0001F511\U0001F511\U0001F511\U0001F511\U0001F511",
                                      // Eight characters for the user, nine in UTF-16.
                                      u"1234567\U0001F511"};
  for (const auto pin : pins) {
    SCOPED_TRACE(Text{pin}.toUtf8());
    startAnew();
    script.card().info.ulMaxPinLen = 64;
    std::optional<TKError> error;
    EXPECT_FALSE(login(pin, &error));
    ASSERT_TRUE(error);
    EXPECT_EQ(error->code, -5);
    EXPECT_EQ(session->authState(), 0);
    EXPECT_THAT(script.callTexts("C_Login"), IsEmpty());
    EXPECT_EQ(script.card().triesLeft, 3U);
  }
}

TEST_F(EnteredPin, IsRefusedWithoutBeingTriedWhenThereIsNone) {
  const auto operation = pinOperation(*session, u"123456");
  operation->setPIN(nullptr);
  std::optional<TKError> error;
  EXPECT_FALSE(operation->finishWithError(&error));
  ASSERT_TRUE(error);
  EXPECT_EQ(error->code, -5);
  operation->setPIN(std::make_shared<const SecretText>());
  EXPECT_FALSE(operation->finishWithError(nullptr));
  EXPECT_THAT(script.callTexts("C_Login"), IsEmpty());
  leavesOpen({kCardSession, kLoginSession, kLoginSession + 2});
}

TEST_F(EnteredPin, StandsInNoLine) {
  // Of digits that no address and no number of a line has in that order.
  constexpr std::u16string_view kPin = u"73918264";
  for (const bool isRight : {false, true}) {
    for (const bool hasProvider : {false, true}) {
      startAnew();
      if (isRight) script.card().pin = "73918264";
      if (!hasProvider) session->setSp(nullptr);
      std::optional<TKError> error;
      EXPECT_EQ(login(kPin, &error), isRight && hasProvider);
      const FakeKeyAlgorithm raw{SecKeyAlgorithm::kSecKeyAlgorithmRSASignatureRaw};
      (void)session->signData(session, Bytes{std::vector<std::uint8_t>(256, 1)}, kKey, raw, &error);
      EXPECT_FALSE(log->allLines.empty());
      for (const std::string& line : log->allLines) {
        EXPECT_THAT(line, Not(HasSubstr("73918264")));
        EXPECT_THAT(line, Not(HasSubstr("3733393138323634")));
      }
      const Text told = error ? error->localizedDescription : Text{};
      EXPECT_THAT(told.toUtf8(), Not(HasSubstr("73918264")));
    }
  }
}

TEST_F(EnteredPin, StaysWithItsOwner) {
  const auto pin = std::make_shared<const SecretText>(u"123456");
  auto operation = pinOperation(*session, u"0");
  operation->setPIN(pin);
  EXPECT_TRUE(operation->finishWithError(nullptr));
  operation.reset();
  EXPECT_EQ(pin.use_count(), 1);
}

TEST_F(EnteredPin, TakesNoMemoryOfTheCardSoftware) {
  const auto operation = pinOperation(*session, u"12345678");
  script.card().pin = "12345678";
  memory->reset();
  EXPECT_TRUE(operation->finishWithError(nullptr));
  // Twice the list of readers, and a record: nothing grows with the PIN.
  const auto requests = memory->requests();
  memory->reset();
  script.card().loggedIn = false;
  operation->setPIN(std::make_shared<const SecretText>(u"1"));
  EXPECT_FALSE(operation->finishWithError(nullptr));
  EXPECT_EQ(memory->requests(), requests);
  leavesOpen({kCardSession, kLoginSession, kLoginSession + 2});
}

}  // namespace
}  // namespace mirel::test
