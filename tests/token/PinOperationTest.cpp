#include "token/ClientSessionTest.h"

namespace mirel::test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr const char* kStart = "default: CTK [MirelSCTokenSession-13] +++START+++";
constexpr const char* kEnd = "default: CTK [MirelSCTokenSession-24] ---END---";

class PinOperation : public ClientSessionTest {
 protected:
  const std::shared_ptr<FakePinOperation> platform = std::make_shared<FakePinOperation>(kit->script);
  MirelSCTokenAuth operation{services(), platform};
};

TEST_F(PinOperation, BelongsToNoSessionBefore) {
  EXPECT_FALSE(operation.session());
  EXPECT_FALSE(operation.PIN());
}

TEST_F(PinOperation, KeepsTheSession) {
  ASSERT_TRUE(operation.initWithSession(session));
  EXPECT_EQ(operation.session(), session);
}

TEST_F(PinOperation, KeepsTheSessionAliveAsLongAsItLives) {
  auto client = newClient();
  const std::weak_ptr<MirelSCTokenSession> watched = client.session;
  {
    MirelSCTokenAuth mine{services(), std::make_shared<FakePinOperation>(kit->script)};
    ASSERT_TRUE(mine.initWithSession(client.session));
    client.session.reset();
    EXPECT_FALSE(watched.expired());
  }
  EXPECT_TRUE(watched.expired());
}

TEST_F(PinOperation, HasTheSessionsCard) {
  ASSERT_TRUE(operation.initWithSession(session));
  EXPECT_EQ(operation.smartCard(), base->card);
}

TEST_F(PinOperation, DescribesAVerifyCommand) {
  for (const std::uint8_t cla : std::vector<std::uint8_t>{0x00, 0x0C, 0x80, 0xFF}) {
    SCOPED_TRACE(int{cla});
    base->card->classByte = cla;
    ASSERT_TRUE(operation.initWithSession(session));
    const std::vector<std::uint8_t> command{cla,  0x20, 0x00, 0x80, 0x08, 0xFF, 0xFF,
                                            0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF};
    EXPECT_EQ(operation.APDUTemplate(), Bytes{command});
  }
}

TEST_F(PinOperation, ReadsTheClassByteOnce) {
  ASSERT_TRUE(operation.initWithSession(session));
  base->card->classByte = 0x80;
  EXPECT_EQ(operation.APDUTemplate().view().front(), 0x00);
}

TEST_F(PinOperation, LaysThePinBehindTheHeaderOfTheCommandAndElseAsThePlatformDoes) {
  ASSERT_TRUE(operation.initWithSession(session));
  const auto format = operation.PINFormat();
  ASSERT_TRUE(format);
  EXPECT_EQ(format->PINBitOffset(), 40);
  EXPECT_EQ(format->charset(), TKSmartCardPINCharset::kNumeric);
  EXPECT_EQ(format->encoding(), TKSmartCardPINEncoding::kASCII);
  EXPECT_EQ(format->minPINLength(), 4);
  EXPECT_EQ(format->maxPINLength(), 8);
  EXPECT_EQ(format->PINBlockByteLength(), 8);
  EXPECT_EQ(format->PINJustification(), TKSmartCardPINJustification::kLeft);
  EXPECT_EQ(format->PINLengthBitOffset(), 0);
  EXPECT_EQ(format->PINLengthBitSize(), 0);
}

TEST_F(PinOperation, HasAFormatOfItsOwn) {
  MirelSCTokenAuth other{services(), std::make_shared<FakePinOperation>(kit->script)};
  ASSERT_TRUE(operation.initWithSession(session));
  ASSERT_TRUE(other.initWithSession(session));
  EXPECT_NE(operation.PINFormat(), other.PINFormat());
}

TEST_F(PinOperation, IsSetUpInOrder) {
  ASSERT_TRUE(operation.initWithSession(session));
  EXPECT_THAT(platform->calls,
              ElementsAre("init", "setSmartCard", "setAPDUTemplate", "setPINFormat offset 0"));
}

TEST_F(PinOperation, LogsItsInitialisation) {
  ASSERT_TRUE(operation.initWithSession(session));
  EXPECT_THAT(log->allLines, ElementsAre(kStart, kEnd));
}

TEST_F(PinOperation, LogsItsStartBeforeThePlatformsInitialisation) {
  std::vector<std::string> linesBefore;
  kit->script->whenPinOperationIsInitialised = [&] { linesBefore = log->allLines; };
  ASSERT_TRUE(operation.initWithSession(session));
  EXPECT_THAT(linesBefore, ElementsAre(kStart));
}

TEST_F(PinOperation, IsLeftAsItIsWhenThePlatformRefuses) {
  kit->script->refusesPinOperations = true;
  EXPECT_FALSE(operation.initWithSession(session));
  EXPECT_THAT(platform->calls, ElementsAre("init"));
  EXPECT_FALSE(operation.session());
  EXPECT_THAT(log->allLines, ElementsAre(kStart, kEnd));
}

TEST_F(PinOperation, CanBeMadeForASessionWithoutACard) {
  base->card = nullptr;
  ASSERT_TRUE(operation.initWithSession(session));
  EXPECT_FALSE(operation.smartCard());
  EXPECT_EQ(operation.APDUTemplate().size(), 13U);
  EXPECT_EQ(operation.APDUTemplate().view().front(), 0x00);
}

TEST_F(PinOperation, SendsNothingToTheCard) {
  ASSERT_TRUE(operation.initWithSession(session));
  EXPECT_THAT(script.callTexts(), IsEmpty());
}

}  // namespace
}  // namespace mirel::test
