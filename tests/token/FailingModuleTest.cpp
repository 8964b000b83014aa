#include <functional>

#include "token/TokenTest.h"

namespace mirel::test {
namespace {

/// How an insertion can end.
enum class Ending {
  kNoToken,   ///< no token and no error: the module cannot be used
  kNotFound,  ///< no token, and the error "object not found": the card cannot be described
  kUnfilled,  ///< a token whose contents nobody has filled: the card cannot be listed
  kEmpty,     ///< a token that publishes nothing
  kFull,      ///< a token with the certificate and the key
};

/// Calls of the module in a good insertion, `times` of them in a row, and how the insertion ends without one.
struct Step {
  const char* function;
  std::size_t times;
  Ending once;               ///< when one call alone fails
  Ending fromThenOn;         ///< when all later ones fail too
  std::size_t sessions;      ///< that are left open when it fails alone
  std::size_t searches = 0;  ///< the same for searches
};

using enum Ending;

const Step kSteps[] = {
    // The provider.
    {"C_GetFunctionList", 1, kNoToken, kNoToken, 0},
    {"C_Initialize", 1, kNoToken, kNoToken, 0},
    // The description of the token. A session that cannot be opened or closed does not matter here.
    {"C_GetSlotList", 3, kNotFound, kNotFound, 0},
    {"C_GetSlotInfo", 2, kNotFound, kNotFound, 0},
    {"C_OpenSession", 1, kFull, kNotFound, 1},
    {"C_GetTokenInfo", 1, kNotFound, kNotFound, 0},
    {"C_CloseSession", 1, kFull, kUnfilled, 2},
    // The card session: looking for the card once more, whose result nobody waits for, ...
    {"C_GetSlotList", 3, kFull, kUnfilled, 1},
    {"C_GetSlotInfo", 2, kFull, kUnfilled, 1},
    {"C_OpenSession", 1, kFull, kUnfilled, 1},
    {"C_GetTokenInfo", 1, kFull, kUnfilled, 1},
    {"C_CloseSession", 1, kFull, kUnfilled, 2},
    // ... and opening it.
    {"C_GetSlotList", 2, kUnfilled, kUnfilled, 0},
    {"C_GetSlotInfo", 2, kUnfilled, kUnfilled, 0},
    {"C_OpenSession", 1, kUnfilled, kUnfilled, 0},
    {"C_GetSessionInfo", 1, kUnfilled, kUnfilled, 0},
    {"C_GetTokenInfo", 1, kUnfilled, kUnfilled, 0},
    // The search for keys. One that is not ended stands in the way of the next.
    {"C_FindObjectsInit", 1, kUnfilled, kUnfilled, 1},
    {"C_FindObjects", 2, kUnfilled, kUnfilled, 1},
    {"C_FindObjectsFinal", 1, kUnfilled, kUnfilled, 1, 1},
    // The search for certificates.
    {"C_FindObjectsInit", 1, kUnfilled, kUnfilled, 1},
    {"C_FindObjects", 2, kUnfilled, kUnfilled, 1},
    {"C_FindObjectsFinal", 1, kFull, kUnfilled, 1, 1},
    // The key: three lengths, then type, label and ID, each asked for twice.
    {"C_GetAttributeValue", 7, kUnfilled, kUnfilled, 1},
    // The length of its modulus, for which the modulus is read: a key without it is left out, and its
    // certificate with it.
    {"C_GetAttributeValue", 3, kEmpty, kUnfilled, 1},
    // The modulus.
    {"C_GetAttributeValue", 3, kUnfilled, kUnfilled, 1},
    // The certificate: three lengths, then label, ID and value, each asked for twice.
    {"C_GetAttributeValue", 7, kUnfilled, kUnfilled, 1},
};

/// One row for each call.
[[nodiscard]] std::vector<Step> singleSteps() {
  std::vector<Step> steps;
  for (const Step& row : kSteps) steps.insert(steps.end(), row.times, row);
  return steps;
}

/// The same for requests of memory.
struct Request {
  const char* what;
  Ending once;
  Ending fromThenOn;
};

const Request kRequests[] = {
    {"slots, for the description", kNotFound, kNotFound},
    {"record, for the description", kNotFound, kNotFound},
    {"slots, looking once more", kFull, kUnfilled},
    {"record, looking once more", kFull, kUnfilled},
    {"slots, for the card session", kUnfilled, kUnfilled},
    {"modulus, for its length", kEmpty, kEmpty},
    {"modulus", kUnfilled, kUnfilled},
};

class FailingModule : public TokenTest {
 protected:
  void TearDown() override {
    script.reset();
    TokenTest::TearDown();
  }

  [[nodiscard]] Ending endingOfInsertion() {
    std::optional<TKError> error;
    FakeToken token{services()};
    if (!token.init(&error)) {
      if (!error) return kNoToken;
      EXPECT_EQ(error, tokenError(-6));
      return kNotFound;
    }
    EXPECT_EQ(error, std::nullopt);
    if (token.contents.fills.empty()) return kUnfilled;
    EXPECT_EQ(token.contents.fills.size(), 1U);
    const auto texts = itemTexts(token.contents.items());
    if (texts.empty()) return kEmpty;
    EXPECT_THAT(texts, ::testing::ElementsAre("certificate cert_MyKey_01, label 01",
                                              "key 01, label 01, certificate cert_MyKey_01, can sign, for "
                                              "login, PIN always, {2: PINAlways}"));
    return kFull;
  }

  /// Without having forgotten what the module is in: the process must be of use afterwards.
  void expectUsable() { EXPECT_EQ(endingOfInsertion(), kFull) << "in the insertion after the failing one"; }

  const std::vector<Step> steps = singleSteps();
};

TEST_F(FailingModule, IsCalledInThisOrder) {
  EXPECT_EQ(endingOfInsertion(), kFull);
  std::vector<std::string> expected;
  for (const Step& step : steps) expected.emplace_back(step.function);
  EXPECT_EQ(functionsCalled(), expected);
}

TEST_F(FailingModule, EndsAnInsertionThatMissesOneCall) {
  for (std::size_t n = 0; n < steps.size(); ++n) {
    SCOPED_TRACE(std::to_string(n) + " " + steps[n].function);
    resetCard();
    script.failCall(n, CKR_DEVICE_ERROR);
    EXPECT_EQ(endingOfInsertion(), steps[n].once);
    EXPECT_TRUE(script.fired());
    EXPECT_EQ(script.openSessions().size(), steps[n].sessions);
    EXPECT_EQ(script.openSearches().size(), steps[n].searches);
    EXPECT_EQ(memory->outstanding(), 0U);
    expectUsable();
  }
}

TEST_F(FailingModule, EndsAnInsertionThatMissesAllFurtherCalls) {
  for (std::size_t n = 0; n < steps.size(); ++n) {
    SCOPED_TRACE(std::to_string(n) + " " + steps[n].function);
    resetCard();
    script.failCall(n, CKR_DEVICE_ERROR, Times::kFromThenOn);
    EXPECT_EQ(endingOfInsertion(), steps[n].fromThenOn);
    EXPECT_TRUE(script.fired());
    EXPECT_EQ(memory->outstanding(), 0U);
    resetCard();
    expectUsable();
  }
}

TEST_F(FailingModule, SurvivesACardThatIsPulledAtAnyCall) {
  for (std::size_t n = 2; n < steps.size(); ++n) {
    SCOPED_TRACE(std::to_string(n) + " " + steps[n].function);
    resetCard();
    const Card card = script.card();
    script.failCall(n, CKR_DEVICE_REMOVED, Times::kFromThenOn);
    EXPECT_EQ(endingOfInsertion(), steps[n].fromThenOn);
    script.reset();
    script.card() = card;
    expectUsable();
  }
}

TEST_F(FailingModule, GetsTheMemoryItNeedsOrEnds) {
  const auto round = [&](std::size_t n, Times times) {
    resetCard();
    memory->reset();
    memory->failAllocation(n, times);
    const Ending ending = endingOfInsertion();
    EXPECT_EQ(memory->fired(), n < std::size(kRequests));
    EXPECT_EQ(memory->outstanding(), 0U);
    memory->reset();
    expectUsable();
    return ending;
  };
  for (std::size_t n = 0; n < std::size(kRequests); ++n) {
    SCOPED_TRACE(kRequests[n].what);
    EXPECT_EQ(round(n, Times::kOnce), kRequests[n].once);
    EXPECT_EQ(round(n, Times::kFromThenOn), kRequests[n].fromThenOn);
  }
  EXPECT_EQ(round(std::size(kRequests), Times::kOnce), kFull);
}

TEST_F(FailingModule, SurvivesAFunctionThatDoesNothingOrIsMissing) {
  struct Outcome {
    Ending ending;
    std::size_t sessions = 0;
  };
  const struct {
    const char* function;
    Outcome whenSilent;
    Outcome whenMissing;
  } rows[] = {
      {"C_Initialize", {kNotFound}, {kNoToken}},
      {"C_GetSlotList", {kNotFound}, {kNotFound}},
      {"C_GetSlotInfo", {kNotFound}, {kNotFound}},
      {"C_GetTokenInfo", {kNotFound}, {kNotFound}},
      {"C_OpenSession", {kUnfilled}, {kUnfilled}},
      {"C_CloseSession", {kFull, 3}, {kFull, 3}},
      {"C_GetSessionInfo", {kFull, 1}, {kUnfilled}},
      {"C_FindObjectsInit", {kUnfilled, 1}, {kUnfilled, 1}},
      {"C_FindObjects", {kEmpty, 1}, {kUnfilled, 1}},
      {"C_FindObjectsFinal", {kUnfilled, 1}, {kUnfilled, 1}},
      {"C_GetAttributeValue", {kUnfilled, 1}, {kUnfilled, 1}},
      {"C_Finalize", {kFull, 1}, {kFull, 1}},
      {"C_DeriveKey", {kFull, 1}, {kFull, 1}},
  };
  for (const auto& row : rows) {
    for (const bool isMissing : {false, true}) {
      SCOPED_TRACE(std::string{row.function} + (isMissing ? " is missing" : " does nothing"));
      const Outcome& expected = isMissing ? row.whenMissing : row.whenSilent;
      resetCard();
      if (!isMissing) script.deviations.silent = {row.function};
      if (isMissing) script.removeEntry(row.function);
      EXPECT_EQ(endingOfInsertion(), expected.ending);
      EXPECT_EQ(script.openSessions().size(), expected.sessions);
      if (isMissing) resetCard();
      script.deviations.silent.clear();
      expectUsable();
    }
  }
}

}  // namespace
}  // namespace mirel::test
