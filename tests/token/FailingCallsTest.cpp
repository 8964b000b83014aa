/// Insertions, uses of a key and logins of which calls of the module fail. What each call means is shown by
/// the tests of the layers below; here, that every one leads to an ending that a client can live with.

#include "token/KeyOperations.h"

namespace mirel::test {
namespace {

constexpr std::size_t kModulusLen = 256;  // bytes

// ---- Insertions ----

constexpr std::size_t kNumInsertionCalls = 53;
constexpr std::size_t kNumInsertionAllocations = 7;

class FailingInsertion : public TokenTest {
 protected:
  void TearDown() override {
    script.reset();
    TokenTest::TearDown();
  }

  /// How an insertion can end.
  enum class Ending {
    kNoToken,   ///< no token and no error: the module cannot be used
    kNotFound,  ///< no token, and the error "object not found": the card cannot be described
    kUnfilled,  ///< a token whose contents nobody has filled: the card cannot be listed
    kEmpty,     ///< a token that publishes nothing
    kFull,      ///< a token with the certificate and the key
  };
  using enum Ending;

  [[nodiscard]] Ending insert() {
    std::optional<TKError> error;
    FakeToken token{services()};
    const bool isMade = token.init(&error);
    EXPECT_EQ(memory->outstanding(), 0U);
    EXPECT_EQ(error, isMade || !token.core.sp() ? std::nullopt : std::optional{tokenError(-6)});
    if (!isMade) return error ? kNotFound : kNoToken;
    if (token.contents.fills.empty()) return kUnfilled;
    EXPECT_EQ(token.contents.fills.size(), 1U);
    const auto texts = itemTexts(token.contents.items());
    if (texts.empty()) return kEmpty;
    EXPECT_THAT(texts, ::testing::ElementsAre(kCertificateItem, kKeyItem));
    return kFull;
  }

  /// The process must be of use afterwards: without having forgotten what the module is in, unless it goes on
  /// failing.
  void expectUsableAgain() override {
    if (goesOnFailing) resetCard();
    EXPECT_EQ(insert(), kFull) << "in the insertion after the failing one";
  }

  bool goesOnFailing = false;
};

TEST_F(FailingInsertion, HasTheEndingOfTheStepThatFails) {
  struct Step {
    std::size_t firstCall;
    Ending once;
    Ending fromThenOn;
  };
  const Step steps[] = {
      {0, kNoToken, kNoToken},    // the provider
      {2, kNotFound, kNotFound},  // the description of the token, ...
      {7, kFull, kNotFound},      // ... in which a session that cannot be opened does not matter
      {8, kNotFound, kNotFound},
      {9, kFull, kUnfilled},       // closing that session; the card session, whose selection nobody looks at
      {18, kUnfilled, kUnfilled},  // opening it; the search for keys; the search for certificates
      {32, kFull, kUnfilled},      // ending that
      {33, kUnfilled, kUnfilled},  // the key
      {40, kEmpty, kUnfilled},     // the length of its modulus, without which it is left out
      {43, kUnfilled, kUnfilled},  // its modulus; the certificate
      {53, kFull, kFull},          // none of the calls
  };
  failEachCall(kNumInsertionCalls, [&](FailPoint& point) {
    resetCard();
    point.arm();
    const Ending ending = insert();
    goesOnFailing = !point.fired() || !point.once();
    const Step* step = steps;
    while (step + 1 != std::end(steps) && step[1].firstCall <= point.n()) ++step;
    EXPECT_EQ(ending, point.once() ? step->once : step->fromThenOn);
  });
}

TEST_F(FailingInsertion, GetsTheMemoryItNeedsOrEnds) {
  failEachAllocation(kNumInsertionAllocations, [&](FailPoint& point) {
    resetCard();
    point.arm();
    const Ending ending = insert();
    // Looking once more for the card is not needed.
    const bool isNeeded = point.fired() && !(point.once() && (point.n() == 2 || point.n() == 3));
    EXPECT_EQ(ending == kFull, !isNeeded);
  });
}

TEST_F(FailingInsertion, SurvivesAFunctionThatDoesNothingOrIsMissing) {
  const struct {
    const char* function;
    Ending whenSilent;
    Ending whenMissing;
  } rows[] = {
      {"C_Initialize", kNotFound, kNoToken},
      {"C_GetSlotList", kNotFound, kNotFound},
      {"C_GetSlotInfo", kNotFound, kNotFound},
      {"C_GetTokenInfo", kNotFound, kNotFound},
      {"C_OpenSession", kUnfilled, kUnfilled},
      {"C_CloseSession", kFull, kFull},
      {"C_GetSessionInfo", kFull, kUnfilled},
      {"C_FindObjectsInit", kUnfilled, kUnfilled},
      {"C_FindObjects", kEmpty, kUnfilled},
      {"C_FindObjectsFinal", kUnfilled, kUnfilled},
      {"C_GetAttributeValue", kUnfilled, kUnfilled},
      {"C_Finalize", kFull, kFull},
      {"C_DeriveKey", kFull, kFull},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.function);
    resetCard();
    script.deviations.silent = {row.function};
    EXPECT_EQ(insert(), row.whenSilent);
    script.deviations.silent.clear();
    expectUsableAgain();
    resetCard();
    script.removeEntry(row.function);
    EXPECT_EQ(insert(), row.whenMissing);
    resetCard();
    expectUsableAgain();
  }
}

// ---- Uses of a key ----

class FailingUse : public LoggedInTest, public ::testing::WithParamInterface<KeyOperation> {
 protected:
  /// What an operation with the key answers.
  enum class Answer { kEmpty, kZeros, kResult };
  using enum Answer;

  [[nodiscard]] bool isSigning() const { return std::string_view{GetParam().name} == "Sign"; }

  /// Uses the key without an error and with what that leaves behind as it was.
  [[nodiscard]] Answer answer() {
    std::optional<TKError> error;
    const Bytes bytes = use(GetParam(), &error);
    EXPECT_EQ(error, std::nullopt);
    EXPECT_EQ(client->core->authState(), 1);
    EXPECT_EQ(memory->outstanding(), 0U);
    if (bytes == Bytes{GetParam().result}) return kResult;
    if (bytes == Bytes{Value(kModulusLen)}) return kZeros;
    EXPECT_EQ(bytes, Bytes{Value{}}) << "something else";
    return kEmpty;
  }

  [[nodiscard]] Bytes use(const KeyOperation& operation, TKErrorPointer outError = nullptr) {
    return useKey(*client, operation, FakeKeyAlgorithm{operation.algorithm}, outError);
  }
};

TEST_P(FailingUse, AnswersNothingOrZerosForASignature) {
  const std::size_t numCalls = isSigning() ? 39 : 45;
  const std::size_t endOfLastSearch = isSigning() ? 33 : 39;
  failEachCall(numCalls, [&](FailPoint& point) {
    logInAnew();
    point.arm();
    const Answer given = answer();
    EXPECT_EQ(script.openSessions().size(), 2U);
    const bool isHarmless = !point.fired() || (point.once() && point.n() == endOfLastSearch);
    const bool isSignature = isSigning() && point.n() >= numCalls - 2;
    EXPECT_EQ(given, isHarmless ? kResult : isSignature ? kZeros : kEmpty);
    if (!point.fired() || !point.once()) return;
    EXPECT_TRUE(client->login()) << "which makes everything work again";
    for (const KeyOperation& operation : keyOperations()) {
      EXPECT_EQ(use(operation), Bytes{operation.result});
    }
  });
}

TEST_P(FailingUse, GetsNoMemory) {
  forEachFailingAllocation(script, *memory, [&](FailPoint& point) {
    logInAnew();
    memory->reset();
    point.arm();
    const Answer given = answer();
    EXPECT_EQ(given, point.fired() ? kEmpty : kResult);
  });
}

TEST_P(FailingUse, LosesTheCardWhileItIsRead) {
  const std::size_t numReads = isSigning() ? 25 : 27;
  for (std::size_t n = 0; n < numReads; ++n) {
    SCOPED_TRACE(n);
    logInAnew();
    std::size_t seen = 0;
    script.hook<&CK_FUNCTION_LIST::C_GetAttributeValue>(
        [&](auto real, auto session, auto object, auto* attributes, auto count) {
          if (seen++ == n) script.pullCard(kSlot, CKR_DEVICE_REMOVED);
          return real(session, object, attributes, count);
        });
    EXPECT_EQ(answer(), kEmpty);
    EXPECT_GT(seen, n);
  }
  script.reset();
  leavesOpen({});
}

INSTANTIATE_TEST_SUITE_P(Key, FailingUse, ::testing::ValuesIn(keyOperations()), nameOfParameter);

// ---- Logins ----

class FailingLogin : public ClientSessionTest {};

TEST_F(FailingLogin, LeavesStateAndMarksAloneAndTellsTheTries) {
  constexpr std::size_t kNumSelectingCalls = 8;  // whose failures nobody minds, unless all later calls fail
  failEachCall(kNumSelectingCalls + 9, [&](FailPoint& point) {
    startAnew();
    strings->texts["VERIFY_TRY_LEFT"] = Text{u"%lu"};
    point.arm();
    std::optional<TKError> error;
    const bool accepted = client->login(u"123456", &error);
    EXPECT_EQ(accepted, !point.fired() || (point.once() && point.n() < kNumSelectingCalls));
    EXPECT_EQ(memory->outstanding(), 0U);
    EXPECT_EQ(client->core->authState(), accepted ? 1 : 0);
    EXPECT_EQ(client->platform.card.marked.load(), accepted);
    EXPECT_EQ(client->platform.card.sensitive.load(), accepted);
    // As long as there is nothing to ask 5, and 0 when the session cannot be asked.
    const Text tries{point.n() < kNumSelectingCalls - 1 ? u"5" : u"0"};
    EXPECT_EQ(error, accepted ? std::nullopt : std::optional{tokenError(-5, tries)});
    if (!point.fired() || !point.once()) return;
    EXPECT_TRUE(client->login());
    EXPECT_EQ(client->sign(bytesOf("data")), Bytes{resultOf(CKM_RSA_X_509, bytesOf("data"), kModulusLen)});
  });
  leavesOpen({kCardSession, kLoginSession});
}

}  // namespace
}  // namespace mirel::test
