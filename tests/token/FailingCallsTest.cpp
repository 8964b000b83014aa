/// Insertions, logins and uses of a key of which calls of the module fail: what each step means for the
/// whole.

#include <functional>
#include <span>

#include "token/KeyOperations.h"

namespace mirel::test {
namespace {

constexpr std::size_t kModulusLen = 256;  // bytes

/// One row for each call, in the order of the calls.
template <typename Step>
[[nodiscard]] std::vector<Step> singleSteps(std::initializer_list<std::span<const Step>> tables) {
  std::vector<Step> steps;
  for (const auto& table : tables) {
    for (const Step& row : table) steps.insert(steps.end(), row.times, row);
  }
  return steps;
}

/// The step whose call has failed, which is that step's function; null in the round in which none fails.
template <typename Step>
[[nodiscard]] const Step* failedStep(const std::vector<Step>& steps, const FailPoint& point,
                                     const Script& script) {
  if (!point.fired()) return nullptr;
  const Step& step = steps.at(point.n());
  EXPECT_EQ(script.calls().at(point.n()).function, step.function);
  return &step;
}

// ---- Insertions ----

/// How an insertion can end.
enum class Ending {
  kNoToken,   ///< no token and no error: the module cannot be used
  kNotFound,  ///< no token, and the error "object not found": the card cannot be described
  kUnfilled,  ///< a token whose contents nobody has filled: the card cannot be listed
  kNoItems,   ///< a token that publishes nothing
  kFull,      ///< a token with the certificate and the key
};
using enum Ending;

/// Calls of the module in a good insertion, `times` of them in a row, and how the insertion ends without one.
struct InsertionStep {
  const char* function;
  std::size_t times;
  Ending once;               ///< when one call alone fails
  Ending fromThenOn;         ///< when all later ones fail too
  std::size_t sessions;      ///< that are left open when it fails alone
  std::size_t searches = 0;  ///< the same for searches
};

const InsertionStep kInsertion[] = {
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
    {"C_GetAttributeValue", 3, kNoItems, kUnfilled, 1},
    // The modulus; then the certificate: three lengths, then label, ID and value, each asked for twice.
    {"C_GetAttributeValue", 3 + 7, kUnfilled, kUnfilled, 1},
};

class FailingInsertion : public TokenTest {
 protected:
  void TearDown() override {
    script.reset();
    TokenTest::TearDown();
  }

  [[nodiscard]] Ending insert() {
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
    if (texts.empty()) return kNoItems;
    EXPECT_THAT(texts, ::testing::ElementsAre(kCertificateItem, kKeyItem));
    return kFull;
  }

  /// Without having forgotten what the module is in: the process must be of use afterwards.
  void expectUsableAgain() override {
    EXPECT_EQ(insert(), kFull) << "in the insertion after the failing one";
  }

  const std::vector<InsertionStep> steps = singleSteps<InsertionStep>({kInsertion});
};

TEST_F(FailingInsertion, EndsAsTheStepOfTheCallHasIt) {
  bool stillFails = false;
  const auto round = [&](FailPoint& point) {
    resetCard();
    point.arm();
    const Ending ending = insert();
    EXPECT_EQ(memory->outstanding(), 0U);
    const InsertionStep* const step = failedStep(steps, point, script);
    EXPECT_EQ(ending, !step ? kFull : point.once() ? step->once : step->fromThenOn);
    stillFails = !step || !point.once();
    if (stillFails) return;
    EXPECT_EQ(script.openSessions().size(), step->sessions);
    EXPECT_EQ(script.openSearches().size(), step->searches);
  };
  const auto expectUsable = [&] {
    if (stillFails) resetCard();
    expectUsableAgain();
  };
  EXPECT_EQ(forEachFailingCall(script, CKR_DEVICE_ERROR, round, expectUsable), steps.size());
}

TEST_F(FailingInsertion, EndsLikewiseWhenTheCardIsPulledAtAnyCall) {
  for (std::size_t n = 2; n < steps.size(); ++n) {
    SCOPED_TRACE(std::to_string(n) + " " + steps[n].function);
    resetCard();
    const Card card = script.card();
    script.failCall(n, CKR_DEVICE_REMOVED, Times::kFromThenOn);
    EXPECT_EQ(insert(), steps[n].fromThenOn);
    script.reset();
    script.card() = card;
    expectUsableAgain();
  }
}

TEST_F(FailingInsertion, GetsTheMemoryItNeedsOrEnds) {
  const struct {
    const char* what;
    Ending once;
    Ending fromThenOn;
  } requests[] = {
      {"slots, for the description", kNotFound, kNotFound},
      {"record, for the description", kNotFound, kNotFound},
      {"slots, looking once more", kFull, kUnfilled},
      {"record, looking once more", kFull, kUnfilled},
      {"slots, for the card session", kUnfilled, kUnfilled},
      {"modulus, for its length", kNoItems, kNoItems},
      {"modulus", kUnfilled, kUnfilled},
      {"none of them", kFull, kFull},
  };
  failEachAllocation(std::size(requests) - 1, [&](FailPoint& point) {
    resetCard();
    point.arm();
    ASSERT_LT(point.n(), std::size(requests));
    const auto& request = requests[point.n()];
    EXPECT_EQ(insert(), point.once() ? request.once : request.fromThenOn) << request.what;
  });
}

TEST_F(FailingInsertion, SurvivesAFunctionThatDoesNothingOrIsMissing) {
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
      {"C_FindObjects", {kNoItems, 1}, {kUnfilled, 1}},
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
      EXPECT_EQ(insert(), expected.ending);
      EXPECT_EQ(script.openSessions().size(), expected.sessions);
      if (isMissing) resetCard();
      script.deviations.silent.clear();
      expectUsableAgain();
    }
  }
}

// ---- Uses of a key ----

/// What an operation with the key answers.
enum class Answer { kEmpty, kZeros, kResult };
using enum Answer;

/// Calls of the module in a good operation, `times` of them in a row.
struct UseStep {
  const char* function;
  std::size_t times = 1;
  Answer once = kEmpty;        ///< when one of them alone fails
  Answer fromThenOn = kEmpty;  ///< when all later ones fail too
};

const UseStep kEnumeration[] = {
    // The search for keys, then the one for certificates.
    {"C_FindObjectsInit"},
    {"C_FindObjects", 2},
    {"C_FindObjectsFinal"},
    {"C_FindObjectsInit"},
    {"C_FindObjects", 2},
    // One that is not ended stands in the way of the search for the private key.
    {"C_FindObjectsFinal"},
    // The key and the certificate.
    {"C_GetAttributeValue", 20},
};

const UseStep kSigning[] = {
    // The private key. That its search is not ended does no harm.
    {"C_GetAttributeValue", 2},
    {"C_FindObjectsInit"},
    {"C_FindObjects", 2},
    {"C_FindObjectsFinal", 1, kResult},
    // The length of the modulus.
    {"C_GetAttributeValue", 3},
    // A failing signature is answered as a success.
    {"C_SignInit", 1, kZeros, kZeros},
    {"C_Sign", 1, kZeros, kZeros},
};

const UseStep kDecrypting[] = {
    // The private key, which is looked for twice. A first search that is not ended stands in the way of the
    // second.
    {"C_GetAttributeValue", 2},
    {"C_FindObjectsInit"},
    {"C_FindObjects", 2},
    {"C_FindObjectsFinal"},
    {"C_GetAttributeValue", 2},
    {"C_FindObjectsInit"},
    {"C_FindObjects", 2},
    {"C_FindObjectsFinal", 1, kResult},
    // The length of the modulus.
    {"C_GetAttributeValue", 3},
    {"C_DecryptInit"},
    {"C_Decrypt"},
};

class FailingUse : public LoggedInTest, public ::testing::WithParamInterface<KeyOperation> {
 protected:
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

TEST_P(FailingUse, AnswersAsTheStepOfTheCallHasIt) {
  const auto steps =
      singleSteps<UseStep>({kEnumeration, isSigning() ? std::span<const UseStep>{kSigning}
                                                      : std::span<const UseStep>{kDecrypting}});
  failEachCall(steps.size(), [&](FailPoint& point) {
    logInAnew();
    point.arm();
    const Answer given = answer();
    EXPECT_EQ(script.openSessions().size(), 2U);
    const UseStep* const step = failedStep(steps, point, script);
    EXPECT_EQ(given, !step ? kResult : point.once() ? step->once : step->fromThenOn);
    if (!step || !point.once()) return;
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

TEST_P(FailingUse, MissesAFunction) {
  const struct {
    const char* function;
    Answer signing;
    Answer decrypting;
  } rows[] = {
      {"C_FindObjectsInit", kEmpty, kEmpty},
      {"C_FindObjects", kEmpty, kEmpty},
      {"C_GetAttributeValue", kEmpty, kEmpty},
      {"C_SignInit", kZeros, kResult},
      {"C_Sign", kZeros, kResult},
      {"C_DecryptInit", kResult, kEmpty},
      {"C_Decrypt", kResult, kEmpty},
      {"C_DeriveKey", kResult, kResult},
      {"C_Login", kResult, kResult},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.function);
    logInAnew();
    script.removeEntry(row.function);
    EXPECT_EQ(answer(), isSigning() ? row.signing : row.decrypting);
  }
}

INSTANTIATE_TEST_SUITE_P(Key, FailingUse, ::testing::ValuesIn(keyOperations()), nameOfParameter);

// ---- Logins ----

/// Calls of the module in a good login, `times` of them in a row.
struct LoginStep {
  const char* function;
  std::size_t times;
  std::size_t sessions;       ///< that are open when one of them alone fails
  const char* tries;          ///< that are told then; null: the login succeeds
  const char* triesFromThen;  ///< that are told when all later ones fail too
};

/// 5 tries are told as long as there is nothing to ask, 0 when the session cannot be asked.
const LoginStep kLogin[] = {
    // Looking for the card, whose result nobody waits for, ...
    {"C_GetSlotList", 3, 2, nullptr, "5"},
    {"C_GetSlotInfo", 2, 2, nullptr, "5"},
    {"C_OpenSession", 1, 2, nullptr, "5"},
    {"C_GetTokenInfo", 1, 2, nullptr, "5"},
    {"C_CloseSession", 1, 3, nullptr, "0"},
    // ... opening the session ...
    {"C_GetSlotList", 2, 1, "0", "0"},
    {"C_GetSlotInfo", 2, 1, "0", "0"},
    {"C_OpenSession", 1, 1, "0", "0"},
    {"C_GetSessionInfo", 1, 1, "0", "0"},
    {"C_GetTokenInfo", 1, 1, "0", "0"},
    // ... and logging in.
    {"C_Login", 1, 2, "0", "0"},
    {"C_GetSessionInfo", 1, 2, "0", "0"},
};

class FailingLogin : public ClientSessionTest {};

TEST_F(FailingLogin, TellsTheTriesThatTheStepOfTheCallLeaves) {
  const std::vector<LoginStep> steps = singleSteps<LoginStep>({kLogin});
  failEachCall(steps.size(), [&](FailPoint& point) {
    startAnew();
    strings->texts["VERIFY_TRY_LEFT"] = Text{u"%lu"};
    point.arm();
    std::optional<TKError> error;
    const bool accepted = client->login(u"123456", &error);
    EXPECT_EQ(memory->outstanding(), 0U);
    EXPECT_EQ(client->core->authState(), accepted ? 1 : 0);
    EXPECT_EQ(client->platform.card.marked.load(), accepted);
    EXPECT_EQ(client->platform.card.sensitive.load(), accepted);
    const LoginStep* const step = failedStep(steps, point, script);
    const char* const tries = !step ? nullptr : point.once() ? step->tries : step->triesFromThen;
    EXPECT_EQ(accepted, tries == nullptr);
    EXPECT_EQ(error, tries ? std::optional{tokenError(-5, Text::fromUtf8(tries))} : std::nullopt);
    if (!step || !point.once()) return;
    EXPECT_EQ(script.openSessions().size(), step->sessions);
    EXPECT_TRUE(client->login());
    EXPECT_EQ(client->sign(bytesOf("data")), Bytes{resultOf(CKM_RSA_X_509, bytesOf("data"), kModulusLen)});
  });
  leavesOpen({kCardSession, kLoginSession});
}

}  // namespace
}  // namespace mirel::test
