#include "host/DoctorTest.h"

#include <sys/stat.h>

#include <fstream>

#include "host/HostTest.h"
#include "platform/DynamicLoader.h"
#include "support/FakeCardService.h"
#include "support/TemporaryFolder.h"

namespace mirel::test {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using InReader = ServiceReader::Card;
using State = CardServiceView::State;

class Doctor : public HostTest {
 protected:
  void TearDown() override {
    leavesOpen(script.openSessions());  // the inserted cards'
    HostTest::TearDown();
  }

  /// The module in the user's home, which is trusted: the checkout may belong to somebody else.
  [[nodiscard]] Diagnosis diagnosis(const Examination& wanted = {{std::nullopt, true}}) {
    PlatformServices mine = services();
    mine.cardService = service;
    return diagnose(mine, wanted);
  }

  std::shared_ptr<FakeCardService> service = std::make_shared<FakeCardService>();
};

TEST_F(Doctor, TellsEachCheckWhenItWasMade) {
  Examination wanted{{std::nullopt, true}};
  std::vector<std::string> begun;
  std::vector<std::string> told;
  std::size_t callsAtSlots = 0;
  wanted.onStart = [&](std::string_view check) { begun.emplace_back(check); };
  wanted.onCheck = [&](const Diagnosis& soFar) {
    told.push_back(soFar.checks.back().name);
    if (told.back() == "module starts") callsAtSlots = script.countOf("C_GetSlotList");
  };
  const Diagnosis found = diagnosis(wanted);
  EXPECT_EQ(told.size(), found.checks.size());
  EXPECT_EQ(told.front(), "module file");
  EXPECT_THAT(begun,
              ElementsAre("module file", "module's system", "module's owner", "module loads",
                          "PKCS #11 version", "module starts", "slots", "card service", "card", "objects"));
  EXPECT_EQ(callsAtSlots, 0U);
}

TEST_F(Doctor, GoesFromTheModulesFileToTheKeysAndTellsOfEachCheck) {
  service->view.readers = {{"Reader A 00", InReader::kPresent, false, false, "3B00"}};
  const Diagnosis found = diagnosis();
  std::vector<std::string> names;
  for (const Check& check : found.checks) {
    names.push_back(check.name);
    EXPECT_FALSE(check.evidence.empty()) << check.name;
    EXPECT_EQ(check.reader.empty(), names.size() <= 9 || check.name == "time of the calls") << check.name;
  }
  EXPECT_THAT(
      names, ElementsAre("module file", "module's system", "module's owner", "module loads",
                         "PKCS #11 version", "module starts", "slots", "card service", "readers", "card",
                         "PIN", "objects", "keys", "login", "signatures", "decryption", "time of the calls"));
  EXPECT_THAT(checkIn(found, "module file").evidence, HasSubstr(home.modulePath()));
  EXPECT_EQ(checkIn(found, "PKCS #11 version").evidence, "2.40");
  EXPECT_EQ(checkIn(found, "slots").evidence, "1, of which 1 with a card");
  EXPECT_EQ(checkIn(found, "card service").evidence, "1 reader: \"Reader A 00\" with a card, ATR 3B00");
  EXPECT_EQ(checkIn(found, "card").evidence, "\"TESTCARD\", serial number 1234567890ABCDEF");
  EXPECT_EQ(checkIn(found, "login").severity, Severity::kSkipped);
}

// ---- The module ----

TEST_F(Doctor, TellsWhatIsWrongWithTheFileOfTheModuleAndSkipsTheRest) {
  const TemporaryFolder folder;
  const std::string other = folder.path() / "other.so";
  std::ofstream{other, std::ios::binary}
      << std::string{"\x7F" "ELF\x02\x01\x01", 7} + std::string(9, '\0') + std::string{"\x03\0\xB7\0", 4} +
             std::string(64, '\0');
  const std::string cut = folder.path() / "cut.so";
  const auto image = ownImageStart();
  std::ofstream{cut, std::ios::binary} << std::string{image.begin(), image.end()};
  const struct {
    std::string path;
    const char* code;
    const char* check;
    const char* evidence;
  } rows[] = {{folder.path() / "none.so", "MT-M01", "module file", "No such file or directory"},
              {folder.path(), "MT-M05", "module file", "it is a folder"},
              {other, "MT-M02", "module's system", "the module is for aarch64"},
              {kNotALibrary, "MT-M05", "module file", "it is no library"},
              {cut, "MT-M04", "module file", "cut.so: it is cut off"},
              {kModuleWithoutEntry, "MT-M05", "module loads", "C_GetFunctionList"},
              {kModuleEntryFails, "MT-M05", "module loads", "CKR_GENERAL_ERROR"},
              {kModuleNullList, "MT-M05", "module loads", "no function list"}};
  for (const auto& [path, code, check, evidence] : rows) {
    SCOPED_TRACE(path);
    const Diagnosis found = diagnosis({{path, true}});
    EXPECT_THAT(codesOf(found), ElementsAre(code));
    EXPECT_EQ(found.verdict(), Severity::kFailure);
    EXPECT_EQ(checkIn(found, check).severity, Severity::kFailure);
    EXPECT_THAT(checkIn(found, check).evidence, HasSubstr(evidence));
    for (const char* later : {"module starts", "slots", "readers", "card", "keys", "signatures"})
      EXPECT_EQ(checkIn(found, later).severity, Severity::kSkipped) << later;
    EXPECT_EQ(checkIn(found, "card service").severity, Severity::kOk);
  }
}

TEST_F(Doctor, SendsWhoHasTheRightFileWithAnEntryThatFailsToTheMaker) {
  const auto findings = diagnosis({{kModuleEntryFails, true}}).findings();
  ASSERT_FALSE(findings.empty());
  EXPECT_THAT(std::string{entryOf(findings.front().id).remedy}, HasSubstr("ask its maker"));
  EXPECT_EQ(findings.front().id, FindingID::kModuleWithoutEntry);
}

TEST_F(Doctor, TellsOfAUserWithoutAHome) {
  PlatformServices mine = services();
  mine.user = std::make_shared<FakeUserDirectory>("", "");
  const Diagnosis found = diagnose(mine, {});
  EXPECT_THAT(codesOf(found), ElementsAre("MT-M01"));
}

TEST_F(Doctor, LoadsAModuleThatOthersMayChangeOnlyWhereItIsTrusted) {
  const TemporaryFolder folder;
  std::filesystem::create_directory(folder.path() / "open");
  ASSERT_EQ(chmod((folder.path() / "open").c_str(), 0777), 0);
  const std::string module = folder.path() / "open" / "module.so";
  std::filesystem::create_symlink(kScriptedModule, module);
  const Diagnosis refused = diagnosis({{module, false}});
  EXPECT_THAT(codesOf(refused), ElementsAre("MT-M03"));
  EXPECT_EQ(refused.verdict(), Severity::kFailure);
  EXPECT_THAT(script.calls(), IsEmpty());
  const Diagnosis trusted = diagnosis({{module, true}});
  EXPECT_EQ(findingIn(trusted, FindingID::kModuleChangeableByOthers).severity, Severity::kWarning);
  EXPECT_EQ(checkIn(trusted, "module starts").severity, Severity::kOk);
}

TEST_F(Doctor, TellsWhyTheModuleDoesNotStartOrList) {
  const struct {
    const char* function;
    CK_RV answer;
    const char* code;
    const char* check;
  } rows[] = {{"C_Initialize", CKR_ARGUMENTS_BAD, "MT-M06", "module starts"},
              {"C_Initialize", CKR_DEVICE_ERROR, "MT-M07", "module starts"},
              {"C_GetSlotList", CKR_GENERAL_ERROR, "MT-M08", "slots"}};
  for (const auto& [function, answer, code, check] : rows) {
    SCOPED_TRACE(code);
    script.reset();
    script.failCallOf(function, 0, answer);
    const Diagnosis found = diagnosis();
    EXPECT_THAT(codesOf(found), ElementsAre(code));
    EXPECT_THAT(checkIn(found, check).evidence, HasSubstr(std::string{function} + " answered CKR_"));
    EXPECT_EQ(checkIn(found, "readers").evidence, entryOf(findEntry(code)->id).title);
  }
}

TEST_F(Doctor, TellsOfCallsThatTakeLong) {
  Examination wanted{{std::nullopt, true}};
  EXPECT_EQ(findingIn(diagnosis(wanted), FindingID::kModuleSlow).evidence, "");
  wanted.slowCall = std::chrono::milliseconds{20};
  script.hook<&CK_FUNCTION_LIST::C_GetSlotInfo>([](auto real, auto slot, auto* info) {
    std::this_thread::sleep_for(std::chrono::milliseconds{30});
    return real(slot, info);
  });
  const Finding slow = findingIn(diagnosis(wanted), FindingID::kModuleSlow);
  EXPECT_EQ(slow.severity, Severity::kWarning);
  EXPECT_EQ(slow.subject, "C_GetSlotInfo");
  EXPECT_THAT(slow.evidence, ::testing::MatchesRegex("it took 0\\.[0-9]* s"));
}

// ---- The readers ----

TEST_F(Doctor, TellsWhyThereIsNoCard) {
  const struct {
    CardServiceView service;
    bool slot;
    const char* code;
  } rows[] = {
      {{State::kSilent, "no pcscd", {}}, false, "MT-R02"},
      {{State::kAnswers, {}, {}}, false, "MT-R01"},
      {{State::kAnswers, {}, {{"Reader A", InReader::kNone}}}, true, "MT-R06"},
      {{State::kAnswers, {}, {{"Reader A", InReader::kPresent, false, false, "3B"}}}, true, "MT-R03"},
      {{State::kAnswers, {}, {{"Reader A", InReader::kPresent, true, true, "3B"}}}, true, "MT-R04"},
      {{State::kAnswers, {}, {{"Reader A", InReader::kMute}}}, true, "MT-R05"},
  };
  for (const auto& [view, slot, code] : rows) {
    SCOPED_TRACE(code);
    script.reset();
    script.slots().clear();
    if (slot) (void)script.addSlot("Reader A");
    service->view = view;
    const Diagnosis found = diagnosis();
    EXPECT_THAT(codesOf(found), ElementsAre(code));
    EXPECT_EQ(found.verdict(), Severity::kFailure);
    EXPECT_EQ(checkIn(found, "keys").evidence, "the module shows no card");
  }
}

TEST_F(Doctor, WarnsOfAnEmptyReaderThatTheModuleDoesNotListBehindWhatIsToBeDone) {
  script.slots().clear();
  (void)script.addSlot("Reader A");
  service->view.readers = {{"Reader Z", InReader::kNone}, {"Reader A", InReader::kNone}};
  const Diagnosis found = diagnosis();
  EXPECT_THAT(codesOf(found), ElementsAre("MT-R06", "MT-R07"));
  EXPECT_EQ(findingIn(found, FindingID::kReaderUnknownToModule).severity, Severity::kWarning);
}

TEST_F(Doctor, DoesNotSayThatAReaderIsEmptyOfWhichTheServiceTellsNothing) {
  service->view.readers = {{"Reader A 00", InReader::kPresent, false, false, "3B00"},
                           {"Reader Z", InReader::kUnknown}};
  EXPECT_EQ(findingIn(diagnosis(), FindingID::kReaderUnknownToModule).evidence,
            "whether it holds a card is not known");
}

TEST_F(Doctor, WarnsOfReadersBesideOneThatWorks) {
  service->view.readers = {{"Reader A 00", InReader::kPresent, false, false, "3B00"},
                           {"Reader B 00", InReader::kPresent, false, false, "3B7A"},
                           {"Reader C 00", InReader::kMute}};
  (void)script.addSlot("Reader B 00");
  const Diagnosis found = diagnosis();
  EXPECT_EQ(findingIn(found, FindingID::kCardNotRecognised).subject, "reader \"Reader B 00\"");
  EXPECT_EQ(findingIn(found, FindingID::kCardNotRecognised).evidence, "ATR 3B7A");
  EXPECT_EQ(findingIn(found, FindingID::kCardMute).severity, Severity::kWarning);
}

TEST_F(Doctor, TellsOfReadersThatCannotBeUsedByTheirName) {
  service->view.readers = {{"Reader A 00", InReader::kPresent, false, false, "3B00"},
                           {"Reader Z", InReader::kNone}};
  (void)script.addSlot("Reader A 00", emptyCard("B", "2"));
  (void)script.addSlot("L\xE4ser", emptyCard("C", "3"));
  const Diagnosis found = diagnosis();
  EXPECT_EQ(findingIn(found, FindingID::kReaderUnknownToModule).subject, "reader \"Reader Z\"");
  EXPECT_EQ(findingIn(found, FindingID::kReaderNamesAlike).evidence, "slot 2");
  EXPECT_EQ(findingIn(found, FindingID::kReaderNameNotAscii).subject, "reader \"L\\xE4ser\"");
  for (int i = 0; i < 10; ++i) (void)script.addSlot("Reader " + std::to_string(i), emptyCard("C", "1"));
  EXPECT_EQ(findingIn(diagnosis(), FindingID::kTooManyCards).evidence, "13 slots");
}

TEST_F(Doctor, ExaminesEachCardOrTheOneThatIsNamed) {
  (void)script.addSlot("Reader B", emptyCard("B", "2"));
  Card spare = emptyCard("", "3");
  spare.info.flags = CKF_RNG;
  (void)script.addSlot("Reader C", spare);
  const auto readersIn = [](const Diagnosis& found) {
    std::vector<std::string> names;
    for (const Check& check : found.checks) {
      if (check.name == "card") names.push_back(check.reader);
    }
    return names;
  };
  const Diagnosis all = diagnosis();
  EXPECT_THAT(readersIn(all), ElementsAre("Reader A 00", "Reader B", "Reader C"));
  EXPECT_EQ(all.checks[all.checks.size() - 2].evidence, "it is not initialised");
  EXPECT_EQ(all.checks[all.checks.size() - 2].severity, Severity::kSkipped);
  EXPECT_THAT(readersIn(diagnosis({{std::nullopt, true}, Text{u"Reader B"}})), ElementsAre("Reader B"));
  const Diagnosis none = diagnosis({{std::nullopt, true}, Text{u"Reader X"}});
  EXPECT_THAT(checkIn(none, "card").evidence, HasSubstr("there is no reader \"Reader X\""));
  EXPECT_EQ(none.verdict(), Severity::kFailure);
}

TEST_F(Doctor, TellsOnceOfTwoCardsWithOneInstanceID) {
  (void)script.addSlot("Reader B", script.card());
  const auto codes = codesOf(diagnosis());
  EXPECT_EQ(std::count(codes.begin(), codes.end(), "MT-T03"), 1);
}

TEST_F(Doctor, TellsOfACardThatCannotBeRead) {
  for (const char* function : {"C_GetTokenInfo", "C_OpenSession"}) {
    SCOPED_TRACE(function);
    script.reset();
    script.failCallOf(function, 0, CKR_DEVICE_ERROR, Times::kFromThenOn);
    const Diagnosis found = diagnosis();
    const Finding unreadable = findingIn(found, FindingID::kTokenUnreadable);
    EXPECT_EQ(unreadable.severity, Severity::kFailure);
    EXPECT_THAT(unreadable.evidence, HasSubstr(std::string{function} + " answered CKR_DEVICE_ERROR"));
  }
}

TEST_F(Doctor, FailsWhereTheInsertionFailsWhateverElseIsFound) {
  const struct {
    const char* name;
    bool shared;
    bool failsAgain;
  } rows[] = {{"the token information fails as well", false, true},
              {"another card with the same name", true, false}};
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    const auto found = [&](std::size_t failing) {
      script.reset();
      if (row.shared) (void)script.addSlot("Reader B", script.card());
      script.failCallOf("C_OpenSession", 0, CKR_DEVICE_ERROR, Times::kFromThenOn);
      if (row.failsAgain) script.failCallOf("C_GetTokenInfo", failing, CKR_DEVICE_ERROR);
      return diagnosis({{std::nullopt, true}, Text{u"Reader A 00"}});
    };
    (void)found(1000);
    const Diagnosis diagnosis = found(script.countOf("C_GetTokenInfo") - 1);
    const Check card = checkIn(diagnosis, "card");
    EXPECT_EQ(card.severity, Severity::kFailure);
    EXPECT_THAT(card.evidence, HasSubstr("C_OpenSession answered CKR_DEVICE_ERROR"));
    EXPECT_EQ(card.findings.size(), 2U);
    EXPECT_EQ(diagnosis.verdict(), Severity::kFailure);
  }
}

TEST_F(Doctor, TellsOfACardInAReaderThatCannotBeUsedOnce) {
  const struct {
    const char* name;
    std::function<void()> make;
    const char* code;
  } rows[] = {
      {"unknown to the module",
       [this] { script.failCallOf("C_GetTokenInfo", 0, CKR_TOKEN_NOT_RECOGNIZED, Times::kFromThenOn); },
       "MT-R03"},
      {"name", [this] { setField(script.slot().info.slotDescription, "L\xE4ser"); }, "MT-R09"},
      {"number",
       [this] {
         for (int i = 0; i < 10; ++i)
           (void)script.addSlot("Reader " + std::to_string(i), emptyCard("C", "1"));
       },
       "MT-R10"},
  };
  for (const auto& [name, make, code] : rows) {
    SCOPED_TRACE(name);
    script.reset();
    setCertificate({});
    make();
    const auto codes = codesOf(diagnosis());
    EXPECT_THAT(codes, ::testing::Contains(code));
    EXPECT_THAT(codes, ::testing::Not(::testing::Contains("MT-T01")));
  }
}

TEST_F(Doctor, TellsOfACardThatCannotBeReadAlsoInAReaderWithACommonName) {
  (void)script.addSlot("Reader A 00", emptyCard("B", "2"));
  script.failCallOf("C_GetTokenInfo", 0, CKR_DEVICE_ERROR, Times::kFromThenOn);
  const Diagnosis found = diagnosis();
  EXPECT_THAT(codesOf(found), ::testing::IsSupersetOf({"MT-R08", "MT-T01"}));
  EXPECT_EQ(found.verdict(), Severity::kFailure);
}

TEST_F(Doctor, DoesNotMissACardThatTheModuleListsByAnotherName) {
  service->view.readers = {{"Service's name", InReader::kPresent, false, false, "3B00"}};
  EXPECT_THAT(codesOf(diagnosis()), ::testing::Not(::testing::Contains("MT-R03")));
}

TEST_F(Doctor, BlamesNoOtherProgramForASlotThatFailsForAnotherReason) {
  service->view.readers = {{"Reader A 00", InReader::kPresent, false, false, "3B00"}};
  const std::pair<CK_RV, const char*> rows[] = {{CKR_DEVICE_ERROR, "MT-R04"}, {CKR_HOST_MEMORY, "MT-T01"}};
  for (const auto& [answer, code] : rows) {
    script.reset();
    script.failCallOf("C_GetSlotInfo", 0, answer, Times::kFromThenOn);
    EXPECT_THAT(codesOf(Diagnosis{{checkIn(diagnosis(), "readers")}}), ElementsAre(code));
  }
}

TEST_F(Doctor, TellsOfACardThatIsNotInitialisedWhereThereIsNoOther) {
  script.card().info.flags = CKF_RNG;
  script.failCallOf("C_OpenSession", 0, CKR_TOKEN_NOT_RECOGNIZED, Times::kFromThenOn);
  const Diagnosis found = diagnosis();
  EXPECT_THAT(codesOf(found), ElementsAre("MT-T02"));
  EXPECT_EQ(checkIn(found, "objects").evidence, "the card is not initialised");
}

TEST_F(Doctor, FailsWhereTheCardGoesAwayWhileItsObjectsAreRead) {
  (void)diagnosis();
  const std::size_t searches = script.countOf("C_FindObjectsInit");
  for (std::size_t before = 1; before <= 3; ++before) {
    SCOPED_TRACE(before);
    script.reset();
    setCertificate({});
    script.failCallOf("C_FindObjectsInit", searches - before, CKR_DEVICE_REMOVED, Times::kFromThenOn);
    const Diagnosis found = diagnosis();
    EXPECT_EQ(found.verdict(), Severity::kFailure);
    EXPECT_THAT(codesOf(Diagnosis{{checkIn(found, "card")}}), ElementsAre("MT-T04"));
    EXPECT_EQ(checkIn(found, "PIN").severity, Severity::kOk);  // it was read before
    EXPECT_THAT(codesOf(found), ::testing::Not(::testing::Contains("MT-C03")));
  }
}

TEST_F(Doctor, TellsOnceOfACardThatGoesAwayWhileItIsInserted) {
  script.failCallOf("C_OpenSession", 0, CKR_DEVICE_REMOVED, Times::kFromThenOn);
  const Diagnosis found = diagnosis();
  EXPECT_THAT(codesOf(found), ElementsAre("MT-T04"));
  EXPECT_EQ(found.verdict(), Severity::kFailure);
}

TEST_F(Doctor, AdvisesToEmptyNoCardForWhichAnotherReasonIsKnown) {
  const struct {
    const char* name;
    std::function<void()> make;
    const char* code;
  } rows[] = {
      {"a session that fails",
       [this] { script.failCallOf("C_OpenSession", 0, CKR_DEVICE_ERROR, Times::kFromThenOn); }, "MT-T01"},
      {"a search that fails",
       [this] { script.failCallOf("C_FindObjects", 0, CKR_DEVICE_ERROR, Times::kFromThenOn); }, "MT-T01"},
      {"a card that was taken out",
       [this] { script.failCallOf("C_OpenSession", 0, CKR_DEVICE_REMOVED, Times::kFromThenOn); }, "MT-T04"},
      {"an object that hides it", [this] { script.object(kPublicKey).attributes[CKA_LABEL].clear(); },
       "MT-C02"},
      {"more than 10 cards",
       [this] {
         Card other = emptyCard("C", "1");
         other.info.flags &= ~CKF_TOKEN_INITIALIZED;
         for (int i = 0; i < 10; ++i) (void)script.addSlot("Reader " + std::to_string(i), other);
       },
       "MT-R10"},
  };
  for (const auto& [name, make, code] : rows) {
    SCOPED_TRACE(name);
    script.reset();
    script.card().info.flags &= ~CKF_TOKEN_INITIALIZED;
    make();
    const Diagnosis found = diagnosis();
    EXPECT_THAT(codesOf(found), ::testing::Contains(code));
    EXPECT_THAT(codesOf(found), ::testing::Not(::testing::Contains("MT-T02")));
    EXPECT_EQ(found.verdict(), Severity::kFailure);
  }
}

// ---- The PIN ----

TEST(Diagnosis, HasAFindingOnceForEachThingThatItIsAboutAsTheWorst) {
  const Finding finding{FindingID::kNoReader, Severity::kWarning, "A", "seen"};
  Finding worse = finding;
  worse.severity = Severity::kFailure;
  Finding elsewhere = finding;
  elsewhere.subject = "B";
  Finding another = finding;
  another.id = FindingID::kReadersEmpty;
  Finding otherwise = finding;
  otherwise.evidence = "heard";
  const Diagnosis diagnosis{{{"one", Severity::kWarning, "", {finding, elsewhere, another, otherwise}},
                             {"two", Severity::kFailure, "", {worse}}}};
  const auto found = diagnosis.findings();
  ASSERT_EQ(found.size(), 4U);
  EXPECT_EQ(found.front().severity, Severity::kFailure);
  EXPECT_EQ(found.back().severity, Severity::kWarning);
}

TEST_F(Doctor, KnowsACountOfTriesThatTheModuleReports) {
  script.card().info.flags |= CKF_USER_PIN_COUNT_LOW;
  EXPECT_THAT(codesOf(Diagnosis{{checkIn(diagnosis(), "PIN")}}), ElementsAre("MT-P03", "MT-P07"));
  script.deviations.triesLeftAsDeviceError = true;
  EXPECT_EQ(checkIn(diagnosis(), "PIN").findings.size(), 1U);
}

TEST_F(Doctor, DoesNotSayThatItKnowsNoCountWhereOneTryIsLeft) {
  script.card().info.flags |= CKF_USER_PIN_FINAL_TRY;
  EXPECT_THAT(codesOf(Diagnosis{{checkIn(diagnosis(), "PIN")}}), ElementsAre("MT-P02"));
}

TEST_F(Doctor, DoesNotSayThatACardWantsNoPinWhereItCannotBeAsked) {
  (void)diagnosis();
  script.failCallOf("C_GetTokenInfo", script.countOf("C_GetTokenInfo") - 1, CKR_DEVICE_ERROR);
  script.forgetCalls();
  const Check pin = checkIn(diagnosis(), "PIN");
  EXPECT_EQ(pin.severity, Severity::kUnknown);
  EXPECT_THAT(pin.evidence, HasSubstr("C_GetTokenInfo answered CKR_DEVICE_ERROR"));
}

// ---- What it costs ----

TEST_F(Doctor, WithoutALoginTakesAtMostTwiceTheCallsOfAnInsertionWithAllThatIsTold) {
  const auto card = inserted();
  (void)host.examine(card);
  const std::size_t ofItems = script.calls().size();
  script.forgetCalls();
  (void)diagnosis();
  EXPECT_LE(script.calls().size(), 2 * ofItems);
  EXPECT_EQ(script.countOf("C_Login"), 0U);
  EXPECT_GT(ofItems, 20U);
}

}  // namespace
}  // namespace mirel::test
