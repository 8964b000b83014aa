#include <functional>
#include <span>

#include "token/KeyOperations.h"

namespace mirel::test {
namespace {

constexpr std::size_t kModulusLen = 256;  // bytes

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

/// One row for each call, in the order of the calls.
template <typename Step>
[[nodiscard]] std::vector<Step> singleSteps(std::initializer_list<std::span<const Step>> tables) {
  std::vector<Step> steps;
  for (const auto& table : tables) {
    for (const Step& row : table) steps.insert(steps.end(), row.times, row);
  }
  return steps;
}

class FailingUse : public LoggedInTest, public ::testing::WithParamInterface<KeyOperation> {
 protected:
  [[nodiscard]] bool isSigning() const { return std::string_view{GetParam().name} == "Sign"; }

  [[nodiscard]] Bytes use(const KeyOperation& operation, TKErrorPointer outError = nullptr) {
    return (*client->core.*operation.use)(client->platform, Bytes{operation.input}, kKey,
                                          FakeKeyAlgorithm{operation.algorithm}, outError);
  }

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

  /// Another login makes everything work again.
  void expectUsable() {
    EXPECT_TRUE(client->login());
    for (const KeyOperation& operation : keyOperations()) {
      EXPECT_EQ(use(operation), Bytes{operation.result});
    }
  }
};

TEST_P(FailingUse, MissesOneCallOrAllFurtherCalls) {
  const std::vector<UseStep> steps =
      singleSteps<UseStep>({kEnumeration, isSigning() ? std::span<const UseStep>{kSigning}
                                                      : std::span<const UseStep>{kDecrypting}});
  forEachFailingCall(script, CKR_DEVICE_ERROR, [&](FailPoint& point) {
    logInAnew();
    point.arm();
    const Answer given = answer();
    EXPECT_EQ(script.openSessions().size(), 2U);
    if (!point.fired()) {
      EXPECT_EQ(given, kResult);
      ASSERT_EQ(point.n(), steps.size());
      return;
    }
    ASSERT_LT(point.n(), steps.size());
    const UseStep& step = steps[point.n()];
    EXPECT_EQ(script.calls().at(point.n()).function, step.function);
    EXPECT_EQ(given, point.times() == Times::kOnce ? step.once : step.fromThenOn);
    if (point.times() == Times::kOnce) expectUsable();
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
    script.hook<&CK_FUNCTION_LIST::C_GetAttributeValue>([&](auto real, CK_SESSION_HANDLE handle,
                                                            CK_OBJECT_HANDLE object,
                                                            CK_ATTRIBUTE_PTR attributes, CK_ULONG count) {
      if (seen++ == n) script.pullCard(kSlot, CKR_DEVICE_REMOVED);
      return real(handle, object, attributes, count);
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

TEST_F(FailingLogin, MissesOneCallOrAllFurtherCalls) {
  const std::vector<LoginStep> steps = singleSteps<LoginStep>({kLogin});
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
      ASSERT_EQ(point.n(), steps.size());
      return;
    }
    ASSERT_LT(point.n(), steps.size());
    const LoginStep& step = steps[point.n()];
    const bool once = point.times() == Times::kOnce;
    EXPECT_EQ(script.calls().at(point.n()).function, step.function);
    const char* const tries = once ? step.tries : step.triesFromThen;
    EXPECT_EQ(accepted, tries == nullptr);
    EXPECT_EQ(error, tries ? std::optional{tokenError(-5, Text::fromUtf8(tries))} : std::nullopt);
    if (!once) return;
    EXPECT_EQ(script.openSessions().size(), step.sessions);
    EXPECT_TRUE(client->login());
    EXPECT_EQ(client->sign(bytesOf("data")), Bytes{resultOf(CKM_RSA_X_509, bytesOf("data"), kModulusLen)});
  });
  leavesOpen({kCardSession, kLoginSession});
}

}  // namespace
}  // namespace mirel::test
