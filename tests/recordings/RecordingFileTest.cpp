#include "recording/RecordingFile.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <utility>

#include "recording/CallText.h"

namespace mirel::test {
namespace {

using namespace recording;
using ::testing::HasSubstr;
using ::testing::StartsWith;

const std::string kHeader =
    R"({"schema":"mireltoken/recording/1","program":"0.1.0","command":["items"],"started":1,"module":"a.so","replaced":[]})"
    "\n";

Recording everyKind() {
  Recording all{{"0.1.0", {"items", "--json"}, 1700000000, "libx.so", {"labels"}}, {}};
  RecordedCall call;
  call.function = "C_GetAttributeValue";
  call.road = Road::kHost;
  call.in = {
      {"number", {~std::uint64_t{0}}}, {"text", {std::string{"a\0\xFF\n", 4}}}, {"null", {NullPointer{}}}};
  call.out = {{"bytes", {ByteVector{0, 255}}},
              {"hidden", {HiddenBytes{7}}},
              {"list", {List{{std::uint64_t{1}}}}},
              {"fields", {Fields{{"a", {ByteVector{}}}}}}};
  call.result = 0x80000042;
  call.microseconds = 1234567;
  call.thread = 2;
  all.records = {call,
                 RecordedLoading{"library", "no\xC3"},
                 RecordedModule{"m", "/m", 2, "it is a pipe", "others", "x86-64", "for another"},
                 RecordedModule{},
                 RecordedSalt{{1, 2}},
                 RecordedTime{RecordedTime::Clock::kDate, 1700000001},
                 RecordedTime{RecordedTime::Clock::kSteady, 5},
                 RecordedView{{CardServiceView::State::kSilent, "why", {}}},
                 RecordedEnd{{BadEnd::Kind::kHung, "", 30}, false, call}};
  auto& last = *std::get<RecordedEnd>(all.records.back()).call;
  last.out.clear();
  last.result = last.microseconds = 0;
  return all;
}

TEST(RecordingFile, ReadsWhatItWrote) {
  const Recording written = everyKind();
  const ReadRecording read = readRecording(textOf(written));
  ASSERT_TRUE(read.recording) << read.refusal;
  EXPECT_EQ(read.recording->header.command, written.header.command);
  EXPECT_EQ(read.recording->header.replaced, written.header.replaced);
  ASSERT_EQ(read.recording->records.size(), written.records.size());
  EXPECT_EQ(std::get<RecordedCall>(read.recording->records[0]), std::get<RecordedCall>(written.records[0]));
  EXPECT_EQ(std::get<RecordedEnd>(read.recording->records.back()),
            std::get<RecordedEnd>(written.records.back()));
  EXPECT_EQ(textOf(*read.recording), textOf(written));
}

TEST(RecordingFile, IsAsciiWithoutControlCharacters) {
  for (const char one : textOf(everyKind())) EXPECT_TRUE(one == '\n' || (one >= ' ' && one < 0x7F));
}

TEST(RecordingFile, IsRefusedWithTooManyValues) {
  std::string text = kHeader;
  for (int i = 0; i < 40; ++i) text += "{\"date\":1}\n";
  EXPECT_EQ(readRecording(text).refusal, "");
  EXPECT_THAT(readRecording(text, 100).refusal, HasSubstr("there are too many values"));
}

TEST(CallText, IsShortWhateverAFileHolds) {
  RecordedCall call;
  const recording::Value attribute{Fields{{"type", {std::string(500'000, 'x')}}}};
  call.in = {{"attributes", {List{attribute}}}};
  EXPECT_LT(subjectText(call).size(), 500U);
}

TEST(CallText, TellsHowARecordedRunEnded) {
  RecordedCall sign;
  sign.function = "C_SignInit";
  sign.in = {{"key", {std::uint64_t{7}}}};
  const std::pair<RecordedEnd, const char*> rows[] = {
      {{{BadEnd::Kind::kCrashed, "SIGSEGV"}, false, sign}, "C_SignInit (key 7) did not return: SIGSEGV"},
      {{{BadEnd::Kind::kExited}, true}, "The module was not loaded to the end: the module called exit"},
      {{{BadEnd::Kind::kHung, "", 5}, true}, "The module was not loaded to the end: hung, ended after 5 s"},
      {{{BadEnd::Kind::kInterrupted, "SIGINT"}},
       "The program was ended while no call was under way: interrupted by SIGINT"}};
  for (const auto& [end, text] : rows) EXPECT_EQ(endText(end), text);
}

TEST(RecordingFile, LeavesOutALineThatWasCutOff) {
  const ReadRecording read = readRecording(kHeader + "{\"date\":1}\n{\"date\":");
  ASSERT_TRUE(read.recording) << read.refusal;
  EXPECT_TRUE(read.isCutOff);
  EXPECT_EQ(read.recording->records.size(), 1U);
}

TEST(RecordingFile, RefusesWhatIsNoneAndNamesTheLine) {
  const std::string call = R"({"function":"C_Login","for":"token","in":{},"out":{},"result":"CKR_OK",)";
  const std::string end = R"({"end":"exited",)";
  const std::pair<std::string, const char*> rows[] = {
      {"", "line 1: it is empty"},
      {"\n", "line 1: it is no JSON"},
      {"{}\n", "line 1: there is no \"schema\""},
      {R"({"schema":"mireltoken/items/1"})"
       "\n",
       "line 1: it is no recording"},
      {kHeader + "nonsense\n", "line 2: it is no JSON"},
      {kHeader + "[]\n", "line 2: there is no object"},
      {kHeader + "{}\n", "line 2: it is no record"},
      {kHeader + "{\"date\":1,\"more\":2}\n", "line 2: it has more than is known"},
      {kHeader + "{\"date\":1}\n{\"date\":-1}\n", "line 3: there is no number"},
      {kHeader + "{\"date\":9000000001}\n", "line 2: there is no number"},
      {kHeader + "{\"salt\":\"0\"}\n", "line 2: a hexadecimal digit is missing"},
      {kHeader + "{\"salt\":\"0G\"}\n", "line 2: there is something else"},
      {kHeader + "{\"loading\":\"\\u0100\",\"error\":null}\n", "line 2: a text has a character"},
      {kHeader + call + "\"milliseconds\":-1,\"thread\":1}\n", "line 2: \"milliseconds\" is no time"},
      {kHeader + call + "\"milliseconds\":1e300,\"thread\":1}\n", "line 2: \"milliseconds\" is no time"},
      {kHeader + call + "\"milliseconds\":1,\"thread\":\"1\"}\n", "line 2: there is no number"},
      {kHeader + "{\"function\":\"rm\"}\n", "line 2: there is no function"},
      {kHeader + R"({"function":"C_Login","for":"me"})"
                 "\n",
       "line 2: \"for\" is neither"},
      {kHeader + R"({"function":"C_Login","for":"host","in":{"a":1.5}})"
                 "\n",
       "line 2: there is no number"},
      {kHeader + R"({"function":"C_Login","for":"host","in":{},"out":{},"result":"CKR_NONE"})"
                 "\n",
       "line 2: there is no result"},
      {kHeader + end + "\"signal\":\"\\u001b\",\"seconds\":0,\"whileLoading\":true,\"call\":null}\n",
       "line 2: there is no signal"},
      {kHeader + end + "\"signal\":\"SIGWITHALONGNAME\",\"seconds\":0,\"whileLoading\":true,\"call\":null}\n",
       "line 2: there is no signal"},
      {kHeader + R"({"end":"crashed","signal":"","seconds":0,"whileLoading":true,"call":null})"
                 "\n",
       "line 2: the signal is missing"},
      {kHeader + R"({"end":"hung","signal":"","seconds":5,"whileLoading":false,"call":null})"
                 "\n",
       "line 2: nothing is named that hung"},
      {kHeader + end + "\"signal\":\"\",\"seconds\":0,\"whileLoading\":true,\"call\":{}}\n",
       "line 2: there is a call where"},
      {kHeader + end + "\"signal\":\"\",\"seconds\":0,\"whileLoading\":true,\"call\":null}\n{\"date\":1}\n",
       "line 3: it goes on after its end"},
      {kHeader + std::string(100000, '[') + "\n", "line 2: it has values in values"},
      {kHeader + std::string(2000000, ' ') + "\n", "line 2: it is too long"},
  };
  for (const auto& [text, why] : rows) {
    const ReadRecording read = readRecording(text);
    EXPECT_FALSE(read.recording);
    EXPECT_THAT(read.refusal, StartsWith(why));
  }
}

}  // namespace
}  // namespace mirel::test
