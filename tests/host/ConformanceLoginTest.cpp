#include <functional>

#include "host/ConformanceTest.h"

namespace mirel::test {
namespace {

class ConformanceLogin : public ConformanceTest {
 protected:
  /// Somebody else has logged in, and does not log out.
  void keepLoggedIn() {
    script.hook<&CK_FUNCTION_LIST::C_OpenSession>(
        [this](auto real, auto slot, auto flags, auto* application, auto notify, auto* session) {
          script.card().loggedIn = true;
          return real(slot, flags, application, notify, session);
        });
  }
};

TEST_F(ConformanceLogin, LeavesALoginOpenWhereTheModuleWasLoggedInAlready) {
  const struct {
    const char* name;
    std::function<void()> make;
    bool triesKeys;
  } rows[] = {
      {"C_Login says so", [this] { keepLoggedIn(); }, false},
      {"C_Login says so, the session does not",
       [this] { script.failCallOf("C_Login", 0, CKR_USER_ALREADY_LOGGED_IN); }, false},
      {"another user", [this] { script.failCallOf("C_Login", 0, CKR_USER_ANOTHER_ALREADY_LOGGED_IN); },
       false},
      {"the session says so",
       [this] {
         keepLoggedIn();
         script.deviations.silent.insert("C_Login");
       },
       true},
      {"the session shows a writing user",
       [this] {
         script.hook<&CK_FUNCTION_LIST::C_GetSessionInfo>([](auto real, auto session, auto* info) {
           const CK_RV rv = real(session, info);
           info->state = CKS_RW_USER_FUNCTIONS;
           return rv;
         });
       },
       true},
  };
  for (const auto& [name, make, triesKeys] : rows) {
    SCOPED_TRACE(name);
    makeGood();
    make();
    const Conformance found = tested();
    const Verdicts verdicts = verdictsOf(found);
    EXPECT_EQ(verdicts.at("CR-33"), RuleVerdict::kUnknown);
    EXPECT_NE(verdicts.at("CR-12"), RuleVerdict::kPass);
    EXPECT_NE(verdicts.at("CR-34"), RuleVerdict::kPass);
    EXPECT_EQ(verdicts.at("CR-43"), triesKeys ? RuleVerdict::kPass : RuleVerdict::kSkip);
    EXPECT_EQ(found.verdict(), RuleVerdict::kWarn);
    for (const RuleResult& result : found.results)
      EXPECT_NE(result.evidence, "there is no login") << result.rule.number;
  }
}

TEST_F(ConformanceLogin, IsLeftOpenWhereNoPinWasSent) {
  given->failure = Failure{FailureKind::kCardRefuses, "the PIN was not sent to the card", "", {}};
  const Conformance found = tested();
  EXPECT_EQ(script.countOf("C_Login"), 0U);
  EXPECT_EQ(verdictsOf(found).at("CR-33"), RuleVerdict::kUnknown);
}

TEST_F(ConformanceLogin, FailsAPinThatIsRefusedAlsoWhereTheModuleWasLoggedInAlready) {
  keepLoggedIn();
  script.failCallOf("C_Login", 0, CKR_PIN_INCORRECT);
  given->again = false;
  EXPECT_EQ(verdictsOf(tested()).at("CR-33"), RuleVerdict::kFail);
}

}  // namespace
}  // namespace mirel::test
