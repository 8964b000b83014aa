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

const char* nameOf(Ending ending) {
  switch (ending) {
    case Ending::kNoToken: return "no token, no error";
    case Ending::kNotFound: return "no token, object not found";
    case Ending::kUnfilled: return "contents not filled";
    case Ending::kEmpty: return "contents empty";
    case Ending::kFull: return "full";
  }
  return "?";
}

std::ostream& operator<<(std::ostream& out, Ending ending) { return out << nameOf(ending); }

/// A call of the module in a good insertion, and how the insertion ends without it.
struct Step {
  const char* function;
  Ending once;               ///< when this call alone fails
  Ending fromThenOn;         ///< when all later ones fail too
  std::size_t sessions;      ///< that are left open when it fails alone
  std::size_t searches = 0;  ///< the same for searches
};

constexpr auto kNoToken = Ending::kNoToken;
constexpr auto kNotFound = Ending::kNotFound;
constexpr auto kUnfilled = Ending::kUnfilled;
constexpr auto kEmpty = Ending::kEmpty;
constexpr auto kFull = Ending::kFull;

const Step kSteps[] = {
    // The provider.
    {"C_GetFunctionList", kNoToken, kNoToken, 0},
    {"C_Initialize", kNoToken, kNoToken, 0},
    // The description of the token. A session that cannot be opened or closed does not matter here.
    {"C_GetSlotList", kNotFound, kNotFound, 0},
    {"C_GetSlotList", kNotFound, kNotFound, 0},
    {"C_GetSlotList", kNotFound, kNotFound, 0},
    {"C_GetSlotInfo", kNotFound, kNotFound, 0},
    {"C_GetSlotInfo", kNotFound, kNotFound, 0},
    {"C_OpenSession", kFull, kNotFound, 1},
    {"C_GetTokenInfo", kNotFound, kNotFound, 0},
    {"C_CloseSession", kFull, kUnfilled, 2},
    // The card session: looking for the card once more, whose result nobody waits for, ...
    {"C_GetSlotList", kFull, kUnfilled, 1},
    {"C_GetSlotList", kFull, kUnfilled, 1},
    {"C_GetSlotList", kFull, kUnfilled, 1},
    {"C_GetSlotInfo", kFull, kUnfilled, 1},
    {"C_GetSlotInfo", kFull, kUnfilled, 1},
    {"C_OpenSession", kFull, kUnfilled, 1},
    {"C_GetTokenInfo", kFull, kUnfilled, 1},
    {"C_CloseSession", kFull, kUnfilled, 2},
    // ... and opening it.
    {"C_GetSlotList", kUnfilled, kUnfilled, 0},
    {"C_GetSlotList", kUnfilled, kUnfilled, 0},
    {"C_GetSlotInfo", kUnfilled, kUnfilled, 0},
    {"C_GetSlotInfo", kUnfilled, kUnfilled, 0},
    {"C_OpenSession", kUnfilled, kUnfilled, 0},
    {"C_GetSessionInfo", kUnfilled, kUnfilled, 0},
    {"C_GetTokenInfo", kUnfilled, kUnfilled, 0},
    // The search for keys. One that is not ended stands in the way of the next.
    {"C_FindObjectsInit", kUnfilled, kUnfilled, 1},
    {"C_FindObjects", kUnfilled, kUnfilled, 1},
    {"C_FindObjects", kUnfilled, kUnfilled, 1},
    {"C_FindObjectsFinal", kUnfilled, kUnfilled, 1, 1},
    // The search for certificates.
    {"C_FindObjectsInit", kUnfilled, kUnfilled, 1},
    {"C_FindObjects", kUnfilled, kUnfilled, 1},
    {"C_FindObjects", kUnfilled, kUnfilled, 1},
    {"C_FindObjectsFinal", kFull, kUnfilled, 1, 1},
    // The key: three lengths, then type, label and ID, each asked for twice.
    {"C_GetAttributeValue", kUnfilled, kUnfilled, 1},
    {"C_GetAttributeValue", kUnfilled, kUnfilled, 1},
    {"C_GetAttributeValue", kUnfilled, kUnfilled, 1},
    {"C_GetAttributeValue", kUnfilled, kUnfilled, 1},
    {"C_GetAttributeValue", kUnfilled, kUnfilled, 1},
    {"C_GetAttributeValue", kUnfilled, kUnfilled, 1},
    {"C_GetAttributeValue", kUnfilled, kUnfilled, 1},
    // The length of its modulus, for which the modulus is read: a key without it is left out, and its
    // certificate with it.
    {"C_GetAttributeValue", kEmpty, kUnfilled, 1},
    {"C_GetAttributeValue", kEmpty, kUnfilled, 1},
    {"C_GetAttributeValue", kEmpty, kUnfilled, 1},
    // The modulus.
    {"C_GetAttributeValue", kUnfilled, kUnfilled, 1},
    {"C_GetAttributeValue", kUnfilled, kUnfilled, 1},
    {"C_GetAttributeValue", kUnfilled, kUnfilled, 1},
    // The certificate: three lengths, then label, ID and value, each asked for twice.
    {"C_GetAttributeValue", kUnfilled, kUnfilled, 1},
    {"C_GetAttributeValue", kUnfilled, kUnfilled, 1},
    {"C_GetAttributeValue", kUnfilled, kUnfilled, 1},
    {"C_GetAttributeValue", kUnfilled, kUnfilled, 1},
    {"C_GetAttributeValue", kUnfilled, kUnfilled, 1},
    {"C_GetAttributeValue", kUnfilled, kUnfilled, 1},
    {"C_GetAttributeValue", kUnfilled, kUnfilled, 1},
};
constexpr std::size_t kNumSteps = std::size(kSteps);

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

/// How an insertion ends with a function of the module in a certain state.
struct FunctionRow {
  const char* function;
  Ending ending;
  std::size_t sessions;
};

class FailingModule : public TokenTest {
 protected:
  void TearDown() override {
    script.reset();
    TokenTest::TearDown();
  }

  [[nodiscard]] Ending endingOfInsertion() {
    std::optional<TKError> error;
    const auto token = insert(&error);
    if (!token) {
      if (!error) return Ending::kNoToken;
      EXPECT_EQ(error, (TKError{Text{u"CryptoTokenKit"}, -6, Text{}}));
      return Ending::kNotFound;
    }
    EXPECT_EQ(error, std::nullopt);
    const auto& fills = kit->lastToken()->contents->fills;
    if (fills.empty()) return Ending::kUnfilled;
    EXPECT_EQ(fills.size(), 1U);
    const auto texts = itemTexts(fills.back());
    if (texts.empty()) return Ending::kEmpty;
    EXPECT_THAT(texts, ::testing::ElementsAre("certificate cert_MyKey_01, label 01",
                                              "key 01, label 01, certificate cert_MyKey_01, can sign, for "
                                              "login, PIN always, {2: PINAlways}"));
    return Ending::kFull;
  }

  /// Without having forgotten what the module is in: the process must be of use afterwards.
  void expectUsable() {
    EXPECT_EQ(endingOfInsertion(), Ending::kFull) << "in the insertion after the failing one";
  }
};

TEST_F(FailingModule, IsCalledInThisOrder) {
  EXPECT_EQ(endingOfInsertion(), Ending::kFull);
  std::vector<std::string> called;
  std::vector<std::string> expected;
  for (const Call& call : script.calls()) called.push_back(call.function);
  for (const Step& step : kSteps) expected.emplace_back(step.function);
  EXPECT_EQ(called, expected);
}

TEST_F(FailingModule, EndsAnInsertionThatMissesOneCall) {
  for (std::size_t n = 0; n < kNumSteps; ++n) {
    SCOPED_TRACE(std::to_string(n) + " " + kSteps[n].function);
    resetCard();
    script.failCall(n, CKR_DEVICE_ERROR);
    EXPECT_EQ(endingOfInsertion(), kSteps[n].once);
    EXPECT_TRUE(script.fired());
    EXPECT_EQ(script.openSessions().size(), kSteps[n].sessions);
    EXPECT_EQ(script.openSearches().size(), kSteps[n].searches);
    EXPECT_EQ(memory->outstanding(), 0U);
    expectUsable();
  }
}

TEST_F(FailingModule, EndsAnInsertionThatMissesAllFurtherCalls) {
  for (std::size_t n = 0; n < kNumSteps; ++n) {
    SCOPED_TRACE(std::to_string(n) + " " + kSteps[n].function);
    resetCard();
    script.failCall(n, CKR_DEVICE_ERROR, Times::kFromThenOn);
    EXPECT_EQ(endingOfInsertion(), kSteps[n].fromThenOn);
    EXPECT_TRUE(script.fired());
    EXPECT_EQ(memory->outstanding(), 0U);
    resetCard();
    expectUsable();
  }
}

TEST_F(FailingModule, SurvivesACardThatIsPulledAtAnyCall) {
  for (std::size_t n = 2; n < kNumSteps; ++n) {
    SCOPED_TRACE(std::to_string(n) + " " + kSteps[n].function);
    resetCard();
    const Card card = script.card();
    script.failCall(n, CKR_DEVICE_REMOVED, Times::kFromThenOn);
    EXPECT_EQ(endingOfInsertion(), kSteps[n].fromThenOn);
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
  EXPECT_EQ(round(std::size(kRequests), Times::kOnce), Ending::kFull);
}

TEST_F(FailingModule, SurvivesAFunctionThatDoesNothing) {
  const FunctionRow kRows[] = {
      {"C_GetFunctionList", kNoToken, 0},   {"C_Initialize", kNotFound, 0},
      {"C_GetSlotList", kNotFound, 0},      {"C_GetSlotInfo", kNotFound, 0},
      {"C_GetTokenInfo", kNotFound, 0},     {"C_OpenSession", kUnfilled, 0},
      {"C_CloseSession", kFull, 3},         {"C_GetSessionInfo", kFull, 1},
      {"C_FindObjectsInit", kUnfilled, 1},  {"C_FindObjects", kEmpty, 1},
      {"C_FindObjectsFinal", kUnfilled, 1}, {"C_GetAttributeValue", kUnfilled, 1},
  };
  for (const FunctionRow& row : kRows) {
    SCOPED_TRACE(row.function);
    resetCard();
    script.deviations.silent = {row.function};
    EXPECT_EQ(endingOfInsertion(), row.ending);
    EXPECT_EQ(script.openSessions().size(), row.sessions);
    script.deviations.silent.clear();
    expectUsable();
  }
}

TEST_F(FailingModule, SurvivesAFunctionThatIsMissing) {
  const FunctionRow kRows[] = {
      {"C_Initialize", kNoToken, 0},
      {"C_GetSlotList", kNotFound, 0},
      {"C_GetSlotInfo", kNotFound, 0},
      {"C_GetTokenInfo", kNotFound, 0},
      {"C_OpenSession", kUnfilled, 0},
      {"C_CloseSession", kFull, 3},
      {"C_GetSessionInfo", kUnfilled, 0},
      {"C_FindObjectsInit", kUnfilled, 1},
      {"C_FindObjects", kUnfilled, 1},
      {"C_FindObjectsFinal", kUnfilled, 1},
      {"C_GetAttributeValue", kUnfilled, 1},
      {"C_Finalize", kFull, 1},
      {"C_DeriveKey", kFull, 1},
  };
  for (const FunctionRow& row : kRows) {
    SCOPED_TRACE(row.function);
    resetCard();
    script.removeEntry(row.function);
    EXPECT_EQ(endingOfInsertion(), row.ending);
    EXPECT_EQ(script.openSessions().size(), row.sessions);
    resetCard();
    expectUsable();
  }
}

}  // namespace
}  // namespace mirel::test
