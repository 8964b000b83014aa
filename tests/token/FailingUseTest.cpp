#include <functional>
#include <span>

#include "token/TokenTest.h"

namespace mirel::test {
namespace {

constexpr std::size_t kModulusLen = 256;  // bytes

/// A call of the module in a good login.
struct LoginStep {
  const char* function;
  bool acceptedWithout;       ///< whether the login succeeds when this call alone fails
  std::size_t sessions;       ///< that are open then
  const char* tries;          ///< that are told when it fails alone; null: the login succeeds
  const char* triesFromThen;  ///< the same when all later calls fail too
};

/// 5 tries are told as long as there is nothing to ask, 0 when the session cannot be asked.
const LoginStep kLogin[] = {
    // Looking for the card, whose result nobody waits for, ...
    {"C_GetSlotList", true, 2, nullptr, "5"},
    {"C_GetSlotList", true, 2, nullptr, "5"},
    {"C_GetSlotList", true, 2, nullptr, "5"},
    {"C_GetSlotInfo", true, 2, nullptr, "5"},
    {"C_GetSlotInfo", true, 2, nullptr, "5"},
    {"C_OpenSession", true, 2, nullptr, "5"},
    {"C_GetTokenInfo", true, 2, nullptr, "5"},
    {"C_CloseSession", true, 3, nullptr, "0"},
    // ... opening the session ...
    {"C_GetSlotList", false, 1, "0", "0"},
    {"C_GetSlotList", false, 1, "0", "0"},
    {"C_GetSlotInfo", false, 1, "0", "0"},
    {"C_GetSlotInfo", false, 1, "0", "0"},
    {"C_OpenSession", false, 1, "0", "0"},
    {"C_GetSessionInfo", false, 1, "0", "0"},
    {"C_GetTokenInfo", false, 1, "0", "0"},
    // ... and logging in.
    {"C_Login", false, 2, "0", "0"},
    {"C_GetSessionInfo", false, 2, "0", "0"},
};

/// What an operation with the key answers.
enum class Answer { kEmpty, kZeros, kResult };

/// Calls of the module in a good operation, `times` of them in a row.
struct UseStep {
  const char* function;
  std::size_t times;
  Answer once;        ///< when one of them alone fails
  Answer fromThenOn;  ///< when all later ones fail too
};

constexpr auto kEmpty = Answer::kEmpty;
constexpr auto kZeros = Answer::kZeros;
constexpr auto kResult = Answer::kResult;

const UseStep kEnumeration[] = {
    // The search for keys, then the one for certificates.
    {"C_FindObjectsInit", 1, kEmpty, kEmpty},
    {"C_FindObjects", 2, kEmpty, kEmpty},
    {"C_FindObjectsFinal", 1, kEmpty, kEmpty},
    {"C_FindObjectsInit", 1, kEmpty, kEmpty},
    {"C_FindObjects", 2, kEmpty, kEmpty},
    // One that is not ended stands in the way of the search for the private key.
    {"C_FindObjectsFinal", 1, kEmpty, kEmpty},
    // The key and the certificate.
    {"C_GetAttributeValue", 20, kEmpty, kEmpty},
};

const UseStep kSigning[] = {
    // The private key. That its search is not ended does no harm.
    {"C_GetAttributeValue", 2, kEmpty, kEmpty},
    {"C_FindObjectsInit", 1, kEmpty, kEmpty},
    {"C_FindObjects", 2, kEmpty, kEmpty},
    {"C_FindObjectsFinal", 1, kResult, kEmpty},
    // The length of the modulus.
    {"C_GetAttributeValue", 3, kEmpty, kEmpty},
    // A failing signature is answered as a success.
    {"C_SignInit", 1, kZeros, kZeros},
    {"C_Sign", 1, kZeros, kZeros},
};

const UseStep kDecrypting[] = {
    // The private key, which is looked for twice. A first search that is not ended stands in the way of the
    // second.
    {"C_GetAttributeValue", 2, kEmpty, kEmpty},
    {"C_FindObjectsInit", 1, kEmpty, kEmpty},
    {"C_FindObjects", 2, kEmpty, kEmpty},
    {"C_FindObjectsFinal", 1, kEmpty, kEmpty},
    {"C_GetAttributeValue", 2, kEmpty, kEmpty},
    {"C_FindObjectsInit", 1, kEmpty, kEmpty},
    {"C_FindObjects", 2, kEmpty, kEmpty},
    {"C_FindObjectsFinal", 1, kResult, kEmpty},
    // The length of the modulus.
    {"C_GetAttributeValue", 3, kEmpty, kEmpty},
    {"C_DecryptInit", 1, kEmpty, kEmpty},
    {"C_Decrypt", 1, kEmpty, kEmpty},
};

[[nodiscard]] std::vector<UseStep> singleSteps(std::span<const UseStep> operation) {
  std::vector<UseStep> steps;
  const auto append = [&](std::span<const UseStep> rows) {
    for (const UseStep& row : rows) steps.insert(steps.end(), row.times, row);
  };
  append(kEnumeration);
  append(operation);
  return steps;
}

class FailingUse : public LoggedInTest {
 protected:
  [[nodiscard]] Bytes sign(TKErrorPointer outError) { return client->sign(data, outError); }
  [[nodiscard]] Bytes decrypt(TKErrorPointer outError) { return client->decrypt(cipherOf(data), outError); }

  [[nodiscard]] static Answer answerOf(const Bytes& bytes, const Bytes& expected) {
    if (bytes == expected) return kResult;
    if (bytes == Bytes{Value(kModulusLen)}) return kZeros;
    EXPECT_EQ(bytes, Bytes{Value{}}) << "something else";
    return kEmpty;
  }

  /// Another login makes everything work again.
  void expectUsable() {
    EXPECT_TRUE(client->login());
    EXPECT_EQ(sign(nullptr), signature);
    EXPECT_EQ(decrypt(nullptr), Bytes{data});
  }

  /// Makes each call of the operation fail in turn.
  void expectSteps(std::span<const UseStep> operation, const Bytes& expected,
                   const std::function<Bytes(TKErrorPointer)>& use) {
    const std::vector<UseStep> steps = singleSteps(operation);
    forEachFailingCall(script, CKR_DEVICE_ERROR, [&](FailPoint& point) {
      logInAnew();
      point.arm();
      std::optional<TKError> error;
      const Answer answer = answerOf(use(&error), expected);
      EXPECT_EQ(error, std::nullopt);
      EXPECT_EQ(client->core->authState(), 1);
      EXPECT_EQ(memory->outstanding(), 0U);
      EXPECT_EQ(script.openSessions().size(), 2U);
      if (!point.fired()) {
        EXPECT_EQ(answer, kResult);
        ASSERT_EQ(point.n(), steps.size());
        return;
      }
      ASSERT_LT(point.n(), steps.size());
      const UseStep& step = steps[point.n()];
      EXPECT_EQ(script.calls().at(point.n()).function, step.function);
      EXPECT_EQ(answer, point.times() == Times::kOnce ? step.once : step.fromThenOn);
      if (point.times() == Times::kOnce) expectUsable();
    });
    leavesOpen({kCardSession, kLoginSession});
  }

  const Value data = patternValue(200, 0x31);
  const Bytes signature{resultOf(CKM_RSA_X_509, data, kModulusLen)};
};

TEST_F(FailingUse, OfThePin) {
  constexpr std::size_t kNumSteps = std::size(kLogin);
  forEachFailingCall(script, CKR_DEVICE_ERROR, [&](FailPoint& point) {
    startAnew();
    strings->texts["VERIFY_TRY_LEFT"] = Text{u"%lu"};
    point.arm();
    std::optional<TKError> error;
    const bool accepted = client->login(u"123456", &error);
    EXPECT_EQ(memory->outstanding(), 0U);
    EXPECT_EQ(client->core->authState(), accepted ? 1 : 0);
    EXPECT_EQ(client->platform.card.marked.load(), accepted);
    EXPECT_EQ(client->platform.card.sensitive.load(), accepted);
    if (!point.fired()) {
      EXPECT_TRUE(accepted);
      ASSERT_EQ(point.n(), kNumSteps);
      return;
    }
    ASSERT_LT(point.n(), kNumSteps);
    const LoginStep& step = kLogin[point.n()];
    const bool once = point.times() == Times::kOnce;
    EXPECT_EQ(script.calls().at(point.n()).function, step.function);
    EXPECT_EQ(accepted, once && step.acceptedWithout);
    const char* const tries = once ? step.tries : step.triesFromThen;
    EXPECT_EQ(error, tries ? std::optional{tokenError(-5, Text::fromUtf8(tries))} : std::nullopt);
    if (!once) return;
    EXPECT_EQ(script.openSessions().size(), step.sessions);
    expectUsable();
  });
}

TEST_F(FailingUse, OfTheKeyForSigning) {
  expectSteps(kSigning, signature, [this](TKErrorPointer outError) { return sign(outError); });
}

TEST_F(FailingUse, OfTheKeyForDecrypting) {
  expectSteps(kDecrypting, Bytes{data}, [this](TKErrorPointer outError) { return decrypt(outError); });
}

TEST_F(FailingUse, OfMemoryForSigning) {
  forEachFailingAllocation(script, *memory, [&](FailPoint& point) {
    logInAnew();
    memory->reset();
    point.arm();
    std::optional<TKError> error;
    const Answer answer = answerOf(sign(&error), signature);
    EXPECT_EQ(answer, point.fired() ? kEmpty : kResult);
    EXPECT_EQ(error, std::nullopt);
    EXPECT_EQ(memory->outstanding(), 0U);
  });
}

TEST_F(FailingUse, OfMemoryForDecrypting) {
  forEachFailingAllocation(script, *memory, [&](FailPoint& point) {
    logInAnew();
    memory->reset();
    point.arm();
    std::optional<TKError> error;
    const Answer answer = answerOf(decrypt(&error), Bytes{data});
    EXPECT_EQ(answer, point.fired() ? kEmpty : kResult);
    EXPECT_EQ(error, std::nullopt);
    EXPECT_EQ(memory->outstanding(), 0U);
  });
}

TEST_F(FailingUse, OfACardThatIsPulledAtAnyCall) {
  const auto pulledAt = [&](const char* function, std::size_t n) {
    logInAnew();
    std::size_t seen = 0;
    script.hook<&CK_FUNCTION_LIST::C_GetAttributeValue>([&, n](auto real, CK_SESSION_HANDLE handle,
                                                               CK_OBJECT_HANDLE object,
                                                               CK_ATTRIBUTE_PTR attributes, CK_ULONG count) {
      if (seen++ == n) script.pullCard(kSlot, CKR_DEVICE_REMOVED);
      return real(handle, object, attributes, count);
    });
    std::optional<TKError> error;
    SCOPED_TRACE(std::string{function} + " " + std::to_string(n));
    const Bytes bytes = std::string_view{function} == "sign" ? sign(&error) : decrypt(&error);
    EXPECT_EQ(bytes, Bytes{Value{}});
    EXPECT_EQ(error, std::nullopt);
    EXPECT_EQ(client->core->authState(), 1);
  };
  constexpr std::size_t kReadsForSigning = 25;
  constexpr std::size_t kReadsForDecrypting = 27;
  for (std::size_t n = 0; n < kReadsForSigning; ++n) pulledAt("sign", n);
  for (std::size_t n = 0; n < kReadsForDecrypting; ++n) pulledAt("decrypt", n);
  script.reset();
  leavesOpen({});
}

TEST_F(FailingUse, OfFunctionsThatAreMissing) {
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
    EXPECT_EQ(answerOf(sign(nullptr), signature), row.signing);
    logInAnew();
    script.removeEntry(row.function);
    EXPECT_EQ(answerOf(decrypt(nullptr), Bytes{data}), row.decrypting);
  }
}

}  // namespace
}  // namespace mirel::test
