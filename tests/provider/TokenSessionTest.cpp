/// Opening the card session.

#include "provider/ProviderTest.h"

namespace mirel::test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

class TokenSession : public ProviderTest {
 protected:
  TokenSession() { init(); }
};

TEST_F(TokenSession, SelectsTheCardThenOpensItsSession) {
  EXPECT_EQ(provider->openTKSmartCardTokenSession(reader()), kCardSession);
  EXPECT_THAT(script.callTexts(),
              ElementsAre("C_GetSlotList(1, list, 10)", "C_GetSlotList(1, null, 10)",
                          "C_GetSlotList(1, list, 10)", "C_GetSlotInfo(1)", "C_GetSlotInfo(1)",
                          "C_OpenSession(1, 4, null, null)", "C_GetTokenInfo(1)", "C_CloseSession(5)",
                          // The selection ends here.
                          "C_GetSlotList(1, null, 10)", "C_GetSlotList(1, list, 10)", "C_GetSlotInfo(1)",
                          "C_GetSlotInfo(1)", "C_OpenSession(1, 4, null, null)", "C_GetSessionInfo(6)",
                          "C_GetTokenInfo(1)"));
  EXPECT_EQ(record().hSession(), kCardSession);
  EXPECT_EQ(record().slotID(), kSlot);
  leavesOpen({kCardSession});
}

TEST_F(TokenSession, IsThatOfTheReaderNamed) {
  const CK_SLOT_ID second = script.addSlot("Reader B 01", emptyCard("SECOND", "2"));
  EXPECT_EQ(provider->openTKSmartCardTokenSession(Text{u"Reader B 01"}), kCardSession);
  EXPECT_EQ(record().slotID(), second);
  leavesOpen({kCardSession});
}

TEST_F(TokenSession, IsANewOneEachTimeAndTheOldOnesStayOpen) {
  EXPECT_EQ(provider->openTKSmartCardTokenSession(reader()), 6U);
  script.card().loggedIn = true;
  EXPECT_EQ(provider->openTKSmartCardTokenSession(reader()), 8U);
  EXPECT_EQ(provider->openTKSmartCardTokenSession(reader()), 10U);
  EXPECT_TRUE(script.card().loggedIn);
  leavesOpen({6, 8, 10});
}

TEST_F(TokenSession, IsReturnedInFull) {
  // A handle that needs more than 32 bits.
  constexpr CK_SESSION_HANDLE kLarge = 0xFEDCBA9876543210;
  script.hook<&CK_FUNCTION_LIST::C_OpenSession>(
      [](auto, CK_SLOT_ID, CK_FLAGS, CK_VOID_PTR, CK_NOTIFY, CK_SESSION_HANDLE* session) -> CK_RV {
        *session = kLarge;
        return CKR_OK;
      });
  script.hook<&CK_FUNCTION_LIST::C_GetSessionInfo>(
      [](auto, CK_SESSION_HANDLE, CK_SESSION_INFO*) -> CK_RV { return CKR_OK; });
  EXPECT_EQ(provider->openTKSmartCardTokenSession(reader()), kLarge);
}

TEST_F(TokenSession, IsZeroWithoutACard) {
  script.pullCard();
  EXPECT_EQ(provider->openTKSmartCardTokenSession(reader()), 0U);
  EXPECT_FALSE(framework().p11ServiceInfo());
}

TEST_F(TokenSession, IsZeroForAReaderThatIsNotThere) {
  EXPECT_EQ(provider->openTKSmartCardTokenSession(Text{u"Reader C"}), 0U);
}

TEST_F(TokenSession, IsZeroWhenTheSelectedCardOpensNone) {
  script.failCallOf("C_OpenSession", 1, CKR_SESSION_COUNT);
  EXPECT_EQ(provider->openTKSmartCardTokenSession(reader()), 0U);
  EXPECT_EQ(record().slotID(), kSlot) << "the record is that of the selection";
}

TEST_F(TokenSession, IsZeroWithAFrameworkWhoseServiceIsNotOpen) {
  provider->setPCTKFramework(std::make_shared<MirelCTKFramework>(services()));
  EXPECT_EQ(provider->openTKSmartCardTokenSession(reader()), 0U);
  EXPECT_THAT(script.callTexts(), IsEmpty());
}

TEST_F(TokenSession, IsZeroForASessionWhoseHandleWasNotWritten) {
  script.deviations.silent = {"C_OpenSession", "C_GetSessionInfo"};
  EXPECT_EQ(provider->openTKSmartCardTokenSession(reader()), 0U);
  EXPECT_EQ(record().slotID(), kSlot);
}

TEST_F(TokenSession, LogsNothing) {
  EXPECT_EQ(provider->openTKSmartCardTokenSession(Text{u"Reader C"}), 0U);
  EXPECT_NE(provider->openTKSmartCardTokenSession(reader()), 0U);
  EXPECT_THAT(log->allLines, IsEmpty());
  leavesOpen(script.openSessions());
}

/// What is returned, and which sessions stay open, when one call fails.
struct Ending {
  std::size_t firstCall;
  std::size_t lastCall;
  const char* what;
  CK_SESSION_HANDLE returned;
  std::vector<CK_SESSION_HANDLE> open;
};

void expectEnding(const std::vector<Ending>& endings, std::size_t n, CK_SESSION_HANDLE returned,
                  const std::vector<CK_SESSION_HANDLE>& open) {
  for (const Ending& ending : endings) {
    if (n < ending.firstCall || n > ending.lastCall) continue;
    SCOPED_TRACE(ending.what);
    EXPECT_EQ(returned, ending.returned);
    EXPECT_EQ(open, ending.open);
    return;
  }
  ADD_FAILURE() << "call " << n << " was not expected";
}

TEST_F(TokenSession, IsTheOneOfTheRecordWhateverCallFails) {
  constexpr std::size_t kNumCalls = 15;
  const std::vector<Ending> once{
      // The selection's result is not looked at: the session is opened all the same.
      {0, 4, "finding the slot for the selection", 5, {5}},
      {5, 5, "opening the session for the token information", 5, {5}},
      {6, 6, "reading the token information", 6, {6}},
      {7, 7, "closing the session for the token information", 6, {5, 6}},
      // The record is then that of the selection, which has no session.
      {8, 12, "finding the slot for the session and opening it", 0, {}},
      {13, 14, "reading about the session", 0, {}},
      {15, 15, "nothing", 6, {6}},
  };
  const std::vector<Ending> fromThenOn{
      {0, 5, "finding the slot for the selection", 0, {}},
      {6, 6, "reading the token information", 0, {5}},
      {7, 7, "closing the session for the token information", 0, {5}},
      {8, 12, "finding the slot for the session and opening it", 0, {}},
      {13, 14, "reading about the session", 0, {6}},
      {15, 15, "nothing", 6, {6}},
  };
  failEachCall(CKR_DEVICE_ERROR, kNumCalls, [&](FailPoint& point) {
    newProvider();
    init();
    point.arm();
    const CK_SESSION_HANDLE returned = provider->openTKSmartCardTokenSession(reader());
    expectEnding(point.times() == Times::kOnce ? once : fromThenOn, point.n(), returned,
                 script.openSessions());
    const auto stored = framework().p11ServiceInfo();
    EXPECT_EQ(returned, stored ? stored->hSession() : 0U);
  });
}

}  // namespace
}  // namespace mirel::test
