#include "DoctorNotes.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "DoctorBundle.h"
#include "support/RecordingLog.h"

namespace mirel::cli {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;
using ::testing::SizeIs;

DoctorNotes someNotes() {
  DoctorNotes notes;
  notes.diagnosis.checks.push_back({"card",
                                    Severity::kWarning,
                                    "seen",
                                    {{FindingID::kPinLocked, Severity::kFailure, "PIN", "locked"}},
                                    "Reader A",
                                    Station::kCard});
  notes.diagnosis.module = {"/module.so", "x86-64"};
  Reader slot;
  slot.name = Text{u"Reader A"};
  slot.serialNumber = Text{u"0815"};
  notes.diagnosis.slots.push_back(slot);
  notes.diagnosis.systemTokens = {"a.b:1"};
  notes.numPublished = 2;
  notes.cards.push_back({{"items", {{{"idHex", "01"}}}}, {"notPublished", nlohmann::ordered_json::array()}});
  notes.log = {"a line"};
  notes.logWasStopped = true;
  return notes;
}

TEST(DoctorNotes, AreReadAsTheyWereWritten) {
  const auto read = notesFrom(textOf(someNotes()));
  ASSERT_TRUE(read);
  EXPECT_EQ(textOf(*read), textOf(someNotes()));
  ASSERT_THAT(read->diagnosis.checks, SizeIs(1));
  const Check& check = read->diagnosis.checks.front();
  EXPECT_EQ(check.severity, Severity::kWarning);
  EXPECT_EQ(check.station, Station::kCard);
  EXPECT_EQ(check.findings.front().id, FindingID::kPinLocked);
  EXPECT_EQ(read->numPublished, 2U);
}

TEST(DoctorNotes, AreNoneOfATextThatIsNone) {
  for (const std::string& text : {std::string{}, std::string{"\0\xFF", 2}, std::string{"{"},
                                  std::string{"[]"}, std::string(400'000, '['), std::string{"{} {}"}})
    EXPECT_FALSE(notesFrom(text)) << text.substr(0, 10);
}

TEST(DoctorNotes, LeaveOutWhatDoesNotFit) {
  const auto notes = notesFrom(
      R"({"checks": [1, {"name": "x\u001b[2J", "severity": 99, "station": -1, "evidence": [],
                         "findings": [{"id": "MT-Z99"}, {"id": "MT-P01", "severity": "x"}, 3]}],
          "slots": {"a": {}}, "module": 5, "numPublished": -1, "log": [1, "a\nb"], "logWasStopped": 7,
          "cards": [{}, {"items": [1], "notPublished": []}, {"items": [{"idHex": 1}], "notPublished": []},
                    {"items": [], "notPublished": [], "idHex": "00"}, {"items": [], "notPublished": []}]})");
  ASSERT_TRUE(notes);
  ASSERT_THAT(notes->diagnosis.checks, SizeIs(1));
  const Check& check = notes->diagnosis.checks.front();
  EXPECT_EQ(check.name, "x\\x1B[2J");
  EXPECT_EQ(check.severity, Severity::kOk);
  EXPECT_EQ(check.station, Station::kModule);
  ASSERT_THAT(check.findings, SizeIs(1));
  EXPECT_EQ(check.findings.front().id, FindingID::kPinLocked);
  EXPECT_THAT(notes->diagnosis.slots, IsEmpty());
  EXPECT_EQ(notes->numPublished, 0U);
  EXPECT_THAT(notes->log, ElementsAre("a\\x0Ab"));
  EXPECT_FALSE(notes->logWasStopped);
  EXPECT_THAT(notes->cards, SizeIs(1));
}

TEST(DoctorNotes, OfWhatTheSystemListsNameNoCardInAnAnonymousBundle) {
  DoctorNotes notes = someNotes();
  notes.diagnosis.systemTokens = {"com.apple.CryptoTokenKit.pivtoken:12345678"};
  notes.diagnosis.checks.front().evidence = notes.diagnosis.systemTokens.front();
  const auto bundle = [&](bool anonymous) {
    return bundleOf({"1.0", "today", notes.diagnosis, notes.cards, notes.log, false}, systemServices(),
                    anonymous);
  };
  EXPECT_THAT(bundle(false), HasSubstr("pivtoken:12345678"));
  EXPECT_THAT(bundle(true), HasSubstr("pivtoken:card-1"));
  EXPECT_THAT(bundle(true), Not(HasSubstr("12345678")));
}

TEST(DoctorNotes, SayHowTheModuleCameToItsEnd) {
  const std::pair<FailureKind, FindingID> rows[] = {
      {FailureKind::kModuleCrashed, FindingID::kModuleCrashed},
      {FailureKind::kModuleEndedProgram, FindingID::kModuleCrashed},
      {FailureKind::kModuleHangs, FindingID::kModuleHangs}};
  for (const auto& [kind, id] : rows) {
    Diagnosis diagnosis;
    addEnd({kind, "what", "why", "advice"}, diagnosis);
    EXPECT_EQ(diagnosis.findings().front().id, id);
    EXPECT_EQ(diagnosis.verdict(), Severity::kFailure);
  }
}

TEST(KeptLog, HandsOnEveryLineAndKeepsItUntilItIsStopped) {
  const auto next = std::make_shared<test::RecordingLog>();
  KeptLog log{next};
  log.systemDefault("first");
  log.systemError("second\x1B");
  log.process("third");
  log.stop();
  log.process("fourth");
  EXPECT_THAT(next->allLines,
              ElementsAre("default: first", "error: second\x1B", "process: third", "process: fourth"));
  EXPECT_THAT(log.lines(), ElementsAre("first", "second\\x1B", "third"));
  EXPECT_TRUE(log.wasStopped());
}

}  // namespace
}  // namespace mirel::cli
