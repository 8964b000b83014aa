#include <thread>

#include "RecordedBridge.h"
#include "ReplayingFront.h"
#include "platform/CardService.h"
#include "platform/TimeAndChance.h"
#include "recording/CallText.h"
#include "recording/RecordingFile.h"
#include "recording/Replayer.h"
#include "support/FakeCardService.h"

namespace mirel::test {
namespace {

using namespace recording;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::SizeIs;
using ::testing::StartsWith;

class ReplayerTest : public RecordedBridgeTest {
 protected:
  /// What was recorded, as it comes out of a file.
  [[nodiscard]] Recording stored() const {
    Recording recording;
    recording.records = kept->records;
    return readRecording(textOf(recording)).recording.value();
  }

  /// Services with the recording in place of the module.
  [[nodiscard]] PlatformServices replaying(Recording recording) {
    PlatformServices all = services();
    replay = replayInto(
        std::move(recording), [this](const std::string& what) { missing.push_back(what); },
        [this](const RecordedEnd& end) { ends.push_back(endText(end)); }, all);
    return all;
  }

  std::vector<std::string> missing;
  std::vector<std::string> ends;
  Replay replay;
};

TEST_F(ReplayerTest, AnswersAsTheModuleDid) {
  const std::string recorded = useEverything(*bridge);
  leavesOpen(script.openSessions());
  const auto calls = script.callTexts();
  P11Bridge replayed{replaying(stored())};
  EXPECT_EQ(useEverything(replayed), recorded);
  EXPECT_THAT(missing, IsEmpty());
  EXPECT_EQ(script.callTexts(), calls) << "the module was called";
}

TEST_F(ReplayerTest, CanBeRecorded) {
  const std::string recorded = useEverything(*bridge);
  leavesOpen(script.openSessions());
  const std::vector<RecordedCall> first = kept->calls();
  PlatformServices all = replaying(stored());
  const auto keptAgain = std::make_shared<KeptRecords>();
  (void)recordInto({keptAgain}, all);
  P11Bridge replayed{all};
  EXPECT_EQ(useEverything(replayed), recorded);
  const std::vector<RecordedCall> second = keptAgain->calls();
  ASSERT_EQ(second.size(), first.size());
  for (std::size_t i = 0; i < first.size(); ++i) EXPECT_EQ(second[i].function, first[i].function);
}

TEST_F(ReplayerTest, LoadsAndMissesWhatTheModuleDid) {
  useModule(kModuleWithoutEntry);
  PlatformServices all = services();
  (void)recordInto({kept}, all);
  EXPECT_FALSE(P11Bridge{all}.pkcs11_Load(Text{}));
  const std::string why = all.loader->errorText();
  EXPECT_FALSE(why.empty());

  PlatformServices other = replaying(stored());
  EXPECT_FALSE(P11Bridge{other}.pkcs11_Load(Text{}));
  EXPECT_EQ(other.loader->errorText(), why);
  EXPECT_THAT(missing, IsEmpty());
}

TEST_F(ReplayerTest, TellsWhyNothingWasLoadedInTheThreadThatAskedForIt) {
  PlatformServices all = services();
  (void)recordInto({kept}, all);
  EXPECT_EQ(all.loader->open("/nowhere"), nullptr);
  const PlatformServices other = replaying(stored());
  EXPECT_EQ(other.loader->open("/nowhere"), nullptr);
  std::thread{[&] {
    EXPECT_EQ(all.loader->errorText(), "");
    EXPECT_EQ(other.loader->errorText(), "");
  }}.join();
  EXPECT_THAT(other.loader->errorText(), HasSubstr("/nowhere"));
}

TEST_F(ReplayerTest, NamesWhatWasNotRecorded) {
  ASSERT_TRUE(bridge->pkcs11_Load(Text{}));
  ASSERT_EQ(bridge->pkcs11_Initial(nullptr), CKR_OK);
  CK_SLOT_INFO info{};
  ASSERT_EQ(bridge->inspectSlot(kSlot, info), CKR_OK);

  P11Bridge replayed{replaying(stored())};
  ASSERT_TRUE(replayed.pkcs11_Load(Text{}));
  CK_TOKEN_INFO token{};
  EXPECT_EQ(replayed.inspectToken(kSlot, token), CKR_FUNCTION_FAILED);
  ASSERT_EQ(replayed.pkcs11_Initial(nullptr), CKR_OK);
  EXPECT_EQ(replayed.inspectSlot(kSlot + 1, info), CKR_FUNCTION_FAILED);
  EXPECT_EQ(replayed.inspectSlot(kSlot, info), CKR_OK);
  EXPECT_EQ(replayed.inspectSlot(kSlot, info), CKR_FUNCTION_FAILED);
  EXPECT_THAT(
      missing,
      ElementsAre("C_GetTokenInfo (slot 1) was not recorded here: the recording goes on with C_Initialize",
                  "C_GetSlotInfo (slot 2) was not recorded here: the recording goes on with "
                  "C_GetSlotInfo (slot 1)",
                  "C_GetSlotInfo (slot 1) was not recorded here: the recording ends before it"));
}

TEST_F(ReplayerTest, EndsInTheCallThatDidNotReturn) {
  ASSERT_TRUE(bridge->pkcs11_Load(Text{}));
  ASSERT_EQ(bridge->pkcs11_Initial(nullptr), CKR_OK);
  CK_SLOT_INFO info{};
  ASSERT_EQ(bridge->inspectSlot(kSlot, info), CKR_OK);
  Recording recorded = stored();
  RecordedEnd end{
      {BadEnd::Kind::kCrashed, "SIGSEGV"}, false, std::get<RecordedCall>(recorded.records.back())};
  recorded.records.back() = end;

  P11Bridge replayed{replaying(std::move(recorded))};
  ASSERT_TRUE(replayed.pkcs11_Load(Text{}));
  EXPECT_EQ(replayed.inspectSlot(kSlot, info), CKR_FUNCTION_FAILED) << "C_Initialize comes first";
  ASSERT_EQ(replayed.pkcs11_Initial(nullptr), CKR_OK);
  EXPECT_EQ(replayed.inspectSlot(kSlot + 1, info), CKR_FUNCTION_FAILED);
  EXPECT_THAT(missing, ElementsAre(HasSubstr("goes on with C_Initialize"),
                                   HasSubstr("goes on with C_GetSlotInfo (slot 1)")));
  EXPECT_THAT(ends, IsEmpty());
  EXPECT_EQ(replayed.inspectSlot(kSlot, info), CKR_FUNCTION_FAILED);
  EXPECT_THAT(ends, ElementsAre("C_GetSlotInfo (slot 1) did not return: SIGSEGV"));
}

TEST_F(ReplayerTest, EndsWithWhatIsAskedNextWhereNoCallWasUnderWay) {
  ASSERT_TRUE(bridge->pkcs11_Load(Text{}));
  Recording recorded = stored();
  recorded.records.emplace_back(RecordedEnd{{BadEnd::Kind::kExited}});
  const PlatformServices other = replaying(std::move(recorded));
  P11Bridge replayed{other};
  (void)other.timeAndChance->date();
  EXPECT_THAT(missing, ElementsAre(HasSubstr("the time was not asked here"))) << "the calls come first";
  ASSERT_TRUE(replayed.pkcs11_Load(Text{}));
  EXPECT_THAT(ends, IsEmpty());
  EXPECT_EQ(replayed.pkcs11_Initial(nullptr), CKR_FUNCTION_FAILED);
  (void)other.timeAndChance->date();
  replay.workIsDone();
  EXPECT_THAT(ends, SizeIs(3));
  EXPECT_THAT(missing, SizeIs(1));
}

TEST_F(ReplayerTest, DoesNotEndWhereTheWorkWasDoneOtherwise) {
  ASSERT_TRUE(bridge->pkcs11_Load(Text{}));
  const RecordedEnd exited{{BadEnd::Kind::kExited}};
  const RecordedEnd interrupted{{BadEnd::Kind::kInterrupted, "SIGINT"}};
  for (const auto& [end, isLoaded] : {std::pair{exited, false}, std::pair{interrupted, true}}) {
    Recording recorded = stored();
    recorded.records.emplace_back(end);
    P11Bridge replayed{replaying(std::move(recorded))};
    if (isLoaded) {
      ASSERT_TRUE(replayed.pkcs11_Load(Text{}));
    }
    replay.workIsDone();
    EXPECT_THAT(ends, IsEmpty());
  }
}

TEST_F(ReplayerTest, EndsInTheLoadingThatDidNotReturn) {
  Recording recorded;
  recorded.records.emplace_back(RecordedEnd{{BadEnd::Kind::kHung, "", 5}, true});
  const PlatformServices other = replaying(std::move(recorded));
  EXPECT_EQ(other.loader->open("/nowhere"), nullptr);
  EXPECT_THAT(ends, SizeIs(1));
  EXPECT_THAT(missing, IsEmpty());
}

TEST_F(ReplayerTest, RepeatsTimeChanceAndTheCardService) {
  PlatformServices all = services();
  auto service = std::make_shared<FakeCardService>();
  service->view = {
      CardServiceView::State::kAnswers, "", {{"Reader 1", ServiceReader::Card::kMute, true, false, "3B00"}}};
  all.cardService = service;
  (void)recordInto({kept}, all);
  const auto date = all.timeAndChance->date();
  const auto start = all.timeAndChance->clock();
  const auto end = all.timeAndChance->clock();
  std::array<std::uint8_t, 20> salt{};
  ASSERT_TRUE(all.timeAndChance->drawSalt(salt));
  (void)all.cardService->look();

  PlatformServices other = replaying(stored());
  EXPECT_EQ(other.timeAndChance->date(), date);
  EXPECT_EQ(other.timeAndChance->clock(), start);
  EXPECT_EQ(other.timeAndChance->clock(), end);
  std::array<std::uint8_t, 20> again{};
  EXPECT_TRUE(other.timeAndChance->drawSalt(again));
  EXPECT_EQ(again, salt);
  const CardServiceView view = other.cardService->look();
  ASSERT_EQ(view.readers.size(), 1U);
  EXPECT_EQ(view.readers[0].name, "Reader 1");
  EXPECT_EQ(view.readers[0].card, ServiceReader::Card::kMute);
  EXPECT_TRUE(view.readers[0].exclusive);
  EXPECT_EQ(view.readers[0].atr, "3B00");
  EXPECT_THAT(missing, IsEmpty());
  EXPECT_FALSE(other.timeAndChance->drawSalt(again));
  EXPECT_THAT(missing, ElementsAre("no such salt was drawn here when it was recorded"));
}

TEST_F(ReplayerTest, MayPassOverWhatIsNotAskedAgain) {
  (void)useEverything(*bridge);
  leavesOpen(script.openSessions());
  std::vector<RecordedCall> calls = kept->calls();
  ReplayingFront front{calls, ReplayingFront::Order::kPassOver,
                       [this](const std::string& what) { missing.push_back(what); }};
  CK_FUNCTION_LIST* functions = nullptr;
  ASSERT_EQ(front.entryPoint()(&functions), CKR_OK);
  CK_SESSION_HANDLE session = 0;
  // The first that was opened was closed again; the user has logged in to the second.
  ASSERT_EQ(functions->C_OpenSession(kSlot, CKF_SERIAL_SESSION, nullptr, nullptr, &session), CKR_OK);
  EXPECT_EQ(functions->C_Login(session, CKU_USER, nullptr, 0), CKR_PIN_INCORRECT);
  EXPECT_EQ(functions->C_Login(session, CKU_USER, nullptr, 0), CKR_OK);
  CK_SESSION_INFO info{};
  EXPECT_EQ(functions->C_GetSessionInfo(session, &info), CKR_OK);
  EXPECT_EQ(info.state, CKS_RO_USER_FUNCTIONS);
  EXPECT_THAT(missing, IsEmpty());
  EXPECT_EQ(functions->C_Login(session, CKU_USER, nullptr, 0), CKR_FUNCTION_FAILED);
  EXPECT_THAT(missing, ElementsAre(StartsWith("C_Login was not recorded here")));
}

TEST_F(ReplayerTest, NeverWritesMoreThanThereIsRoomFor) {
  // A recording may say anything of an answer, its question being equal.
  RecordedCall list;
  list.function = "C_GetFunctionList";
  list.out = {{"version", {Fields{{"major", {std::uint64_t{2}}}, {"minor", {std::uint64_t{40}}}}}}};
  RecordedCall call;
  call.function = "C_FindObjects";
  call.in = {{"session", {std::uint64_t{1}}}, {"objects", {std::uint64_t{1}}}};
  List many;
  for (int i = 0; i < 100; ++i) many.push_back({std::uint64_t{9}});
  call.out = {{"objects", {Fields{{"count", {std::uint64_t{100}}}, {"value", {many}}}}}};
  ReplayingFront front{{list, call}, ReplayingFront::Order::kExact, [](const std::string&) {}};
  CK_FUNCTION_LIST* functions = nullptr;
  ASSERT_EQ(front.entryPoint()(&functions), CKR_OK);
  CK_OBJECT_HANDLE room[2] = {0, 7};
  CK_ULONG count = 0;
  EXPECT_EQ(functions->C_FindObjects(1, room, 1, &count), CKR_OK);
  EXPECT_EQ(count, 100U);
  EXPECT_EQ(room[0], 9U);
  EXPECT_EQ(room[1], 7U);
}

}  // namespace
}  // namespace mirel::test
