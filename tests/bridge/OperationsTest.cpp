/// What all operations of the bridge have in common: their calls, failures and missing functions.

#include <algorithm>
#include <set>

#include "Operations.h"

namespace mirel::test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using Event = RecordingObserver::Event;

/// What an operation answers in which a call fails with `code`.
CK_RV answerTo(const CallRow& call, CK_RV code) {
  switch (call.failing) {
    case Failing::kAnswered: return code;
    case Failing::kMarked: return code | kRereadFailed;
    case Failing::kReplaced: return call.replacement;
    case Failing::kIgnored: break;
  }
  return CKR_OK;
}

class Operations : public SessionTest, public ::testing::WithParamInterface<Operation> {
 protected:
  /// What fails may stay open.
  void TearDown() override {
    script.reset();
    leavesOpen({});
    SessionTest::TearDown();
  }

  [[nodiscard]] const std::vector<CallRow>& calls() const { return GetParam().calls; }

  /// The calls that are made when those from `n` on fail, or that one alone, and the answer.
  [[nodiscard]] std::vector<std::string> expectedCalls(std::size_t n, bool once, CK_RV code,
                                                       CK_RV& outAnswer) const {
    std::size_t last = n;
    if (!once) {
      while (last < calls().size() && calls()[last].failing == Failing::kIgnored) ++last;
    }
    const bool ends = last < calls().size() && calls()[last].failing != Failing::kIgnored;
    outAnswer = ends ? answerTo(calls()[last], code) : CKR_OK;
    std::vector<std::string> texts;
    for (std::size_t i = 0; i < (ends ? last + 1 : calls().size()); ++i) texts.push_back(calls()[i].text);
    if (ends && !calls()[last].cleanUp.empty()) texts.push_back(calls()[last].cleanUp);
    if (n < calls().size()) std::erase(texts, calls()[n].undoes);
    return texts;
  }
};

INSTANTIATE_TEST_SUITE_P(All, Operations, ::testing::ValuesIn(allOperations()),
                         [](const auto& row) { return row.param.name; });

TEST_P(Operations, MakeExactlyTheseCalls) {
  Bench bench{bridge, script};
  EXPECT_EQ(GetParam().run(bench), CKR_OK);
  CK_RV answer = CKR_GENERAL_ERROR;
  EXPECT_EQ(script.callTexts(), expectedCalls(calls().size(), true, CKR_OK, answer));
  EXPECT_EQ(memory->requests().size(), GetParam().numAllocations);
}

TEST_P(Operations, EndAsTheFailingCallHasIt) {
  for (const CK_RV code : {kSomeFailure, CKR_VENDOR_DEFINED | CK_RV{0x99}}) {
    SCOPED_TRACE(code);
    const std::size_t numCalls = forEachFailingCall(script, code, [&](FailPoint& point) {
      prepareAgain();
      Bench bench{bridge, script};
      point.arm();
      const CK_RV rv = GetParam().run(bench);
      CK_RV expected = CKR_OK;
      EXPECT_EQ(script.callTexts(), expectedCalls(point.n(), point.once(), code, expected));
      EXPECT_EQ(rv, expected);
      if (rv != CKR_OK) {
        EXPECT_TRUE(bench.output.untouched());
        EXPECT_EQ(bench.record, nullptr);
      }
      EXPECT_THAT(script.openOperations(), IsEmpty());
      EXPECT_EQ(memory->outstanding(), 0U);
    });
    EXPECT_EQ(numCalls, calls().size());
  }
}

TEST_P(Operations, AnswerHostMemoryWhereThereIsNone) {
  const std::size_t numAllocations = forEachFailingAllocation(script, *memory, [&](FailPoint& point) {
    prepareAgain();
    Bench bench{bridge, script};
    point.arm();
    const CK_RV rv = GetParam().run(bench);
    EXPECT_EQ(rv, point.fired() ? CKR_HOST_MEMORY : CKR_OK);
    if (point.fired()) {
      EXPECT_TRUE(bench.output.untouched());
      EXPECT_EQ(bench.record, nullptr);
      EXPECT_EQ(script.countOf("C_SignInit") + script.countOf("C_DecryptInit"), 0U);
    }
  });
  EXPECT_EQ(numAllocations, GetParam().numAllocations);
}

TEST_P(Operations, AreRefusedByAModuleThatLacksAFunctionUnlessItIsIgnored) {
  std::set<std::string> functions;
  for (const CallRow& call : calls()) functions.insert(call.text.substr(0, call.text.find('(')));
  for (const std::string& function : functions) {
    SCOPED_TRACE(function);
    startAnew();
    const auto row = std::find_if(calls().begin(), calls().end(), [&](const CallRow& call) {
      return call.text.starts_with(function + "(") && call.failing != Failing::kIgnored;
    });
    script.removeEntry(function);
    Bench bench{bridge, script};
    EXPECT_EQ(GetParam().run(bench),
              row == calls().end() ? CKR_OK : answerTo(*row, CKR_FUNCTION_NOT_SUPPORTED));
    EXPECT_EQ(script.countOf(function), 0U);
  }
}

TEST_P(Operations, TestTheFunctionListBeforeTheirArguments) {
  P11Bridge unloaded{services()};
  memory->failAllocation(0, Times::kFromThenOn);
  EXPECT_EQ(GetParam().runBare(unloaded), GetParam().withoutList);
}

TEST_P(Operations, TellTheObserverTheirNameAndResultAndLogNothing) {
  Bench bench{bridge, script};
  EXPECT_EQ(GetParam().run(bench), CKR_OK);
  EXPECT_EQ(observer->events.back(), (Event{Event::Kind::kOperationReturned, GetParam().operation, CKR_OK}));
  script.failCall(0, kSomeFailure);
  const CK_RV rv = GetParam().run(bench);
  EXPECT_EQ(observer->events.back(), (Event{Event::Kind::kOperationReturned, GetParam().operation, rv}));
  EXPECT_THAT(log->allLines, IsEmpty());
}

// ---- The observer ----

class Observer : public SessionTest {};

TEST_F(Observer, IsToldOfEachCallBeforeAndBehindIt) {
  script.failCallOf("C_GetSessionInfo", 0, kSomeFailure);
  std::shared_ptr<PKCS11_SERVICE_INFO> record;
  EXPECT_EQ(bridge.pkcs11_OpenReadOnlySession(kSlot, &record), kSomeFailure);
  using enum Event::Kind;
  EXPECT_THAT(observer->events,
              ElementsAre(Event{kCallStarts, "C_GetSlotInfo"}, Event{kCallReturned, "C_GetSlotInfo"},
                          Event{kCallStarts, "C_OpenSession"}, Event{kCallReturned, "C_OpenSession"},
                          Event{kCallStarts, "C_GetSessionInfo"},
                          Event{kCallReturned, "C_GetSessionInfo", kSomeFailure},
                          Event{kCallStarts, "C_CloseSession"}, Event{kCallReturned, "C_CloseSession"},
                          Event{kOperationReturned, "pkcs11_OpenReadOnlySession", kSomeFailure}));
}

TEST_F(Observer, IsToldOfACallToAFunctionThatTheModuleLacks) {
  script.removeEntry("C_GetSessionInfo");
  EXPECT_EQ(bridge.pkcs11_GetSessionInfo(session, nullptr), CKR_FUNCTION_NOT_SUPPORTED);
  using enum Event::Kind;
  EXPECT_THAT(observer->events,
              ElementsAre(Event{kCallStarts, "C_GetSessionInfo"},
                          Event{kCallReturned, "C_GetSessionInfo", CKR_FUNCTION_NOT_SUPPORTED},
                          Event{kOperationReturned, "pkcs11_GetSessionInfo", CKR_FUNCTION_NOT_SUPPORTED}));
}

TEST_F(Observer, NeedNotBeThere) {
  PlatformServices withoutObserver = services();
  withoutObserver.observer = nullptr;
  P11Bridge unobserved{withoutObserver};
  ASSERT_TRUE(unobserved.pkcs11_Load(Text{}));
  EXPECT_EQ(unobserved.pkcs11_GetSessionInfo(session, nullptr), CKR_OK);
  script.removeEntry("C_GetSessionInfo");
  EXPECT_EQ(unobserved.pkcs11_GetSessionInfo(session, nullptr), CKR_FUNCTION_NOT_SUPPORTED);
}

// ---- Codes of our own ----

TEST(Codes, HaveTheNumbersThatThisSystemHasAlwaysAnswered) {
  EXPECT_EQ(kSessionExists, 0xB3U);
  EXPECT_EQ(kSessionReadOnlyExists, 0xB4U);
  EXPECT_EQ(kLoginDidNotTake, 0x800000B4U);
  EXPECT_EQ(kRereadFailed, 0x80000000U);
}

}  // namespace
}  // namespace mirel::test
