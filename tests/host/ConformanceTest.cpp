#include "host/ConformanceTest.h"

#include <fstream>
#include <iterator>
#include <regex>
#include <set>

namespace mirel::test {
namespace {

using ::testing::Contains;

constexpr std::size_t kPublic1 = 0;
constexpr std::size_t kPrivate1 = 1;
constexpr std::size_t kCertificate1 = 2;
constexpr std::size_t kPrivate2 = 4;
constexpr std::size_t kPublic3 = 6;

// ---- The table of rules ----

TEST(ConformanceRules, AreThoseOfThePageForCardMakers) {
  std::ifstream file{MIREL_SOURCE_FOLDER "/docs/cards.md"};
  const std::string page{std::istreambuf_iterator<char>{file}, {}};
  const std::regex number{"CR-[0-9]+"};
  std::vector<std::string> onPage;
  for (std::sregex_iterator it{page.begin(), page.end(), number}; it != std::sregex_iterator{}; ++it)
    onPage.push_back(it->str());
  std::vector<std::string> inTable;
  for (const ConformanceRule& rule : conformanceRules()) {
    inTable.emplace_back(rule.number);
    EXPECT_FALSE(rule.title.empty() || rule.group.empty()) << rule.number;
  }
  EXPECT_TRUE(std::is_sorted(inTable.begin(), inTable.end()));
  EXPECT_THAT(onPage, ::testing::UnorderedElementsAreArray(inTable));
}

// ---- A good card ----

TEST_F(ConformanceTest, PassesAGoodCardByEachRuleThatCanBeTested) {
  makeCard(SoftwareKey::rsa(2048));
  const Conformance found = tested();
  for (const RuleResult& result : found.results) {
    EXPECT_FALSE(result.evidence.empty()) << result.rule.number;
    EXPECT_TRUE(result.verdict == RuleVerdict::kPass || result.verdict == RuleVerdict::kSkip)
        << result.rule.number << " " << result.evidence;
  }
  EXPECT_THAT(numbersWith(RuleVerdict::kSkip, found),
              ElementsAre("CR-10", "CR-25", "CR-26", "CR-35", "CR-50"));
  EXPECT_EQ(found.verdict(), RuleVerdict::kPass);
  EXPECT_EQ(found.grade.letter, "A");
  EXPECT_EQ(given->timesAsked(), 1U);
}

TEST_F(ConformanceTest, TellsWhichCardWasTested) {
  const Conformance found = tested(false);
  ASSERT_TRUE(found.card);
  EXPECT_EQ(found.card->name, Text{u"Reader A 00"});
  EXPECT_EQ(found.card->tokenLabel, Text{u"TESTCARD"});
}

TEST_F(ConformanceTest, NamesEachObjectThatLacksAnAttribute) {
  value(kPublic1, CKA_LABEL) = {};
  value(kCertificate1, CKA_ID) = {};
  const Conformance found = tested(false);
  const auto broken = std::find_if(found.results.begin(), found.results.end(), [](const RuleResult& result) {
    return result.evidence.find("lacks") != std::string::npos;
  });
  ASSERT_NE(broken, found.results.end());
  EXPECT_EQ(broken->evidence, "public key number 1 lacks CKA_LABEL; certificate number 1 lacks CKA_ID");
}

TEST_F(ConformanceTest, CountsTheKeysItHasLookedAt) {
  const auto evidenceOf = [this](std::string_view number) {
    script.card().loggedIn = false;
    given.emplace(std::deque<std::u16string>{u"123456"});
    for (const RuleResult& result : tested().results) {
      if (result.rule.number == number) return result.evidence;
    }
    return std::string{};
  };
  EXPECT_EQ(evidenceOf("CR-37"), "1 RSA signing key looked at");
  EXPECT_EQ(evidenceOf("CR-48"), "1 RSA decrypting key looked at");
  addKey("03", "Another", kForSigning, SoftwareKey::rsa(1024));
  addKey("04", "Safe", kForDecrypting, SoftwareKey::rsa(1024));
  EXPECT_EQ(evidenceOf("CR-37"), "2 RSA signing keys looked at");
  EXPECT_EQ(evidenceOf("CR-38"), "2 RSA signing keys looked at");
  EXPECT_EQ(evidenceOf("CR-48"), "2 RSA decrypting keys looked at");
}

TEST_F(ConformanceTest, SendsNoPinWithoutBeingAskedTo) {
  const Conformance found = tested(false);
  EXPECT_EQ(script.countOf("C_Login"), 0U);
  EXPECT_EQ(found.verdict(), RuleVerdict::kPass);
  EXPECT_EQ(found.grade.letter, "-");
  EXPECT_THAT(numbersWith(RuleVerdict::kSkip, found), ::testing::IsSupersetOf({"CR-12", "CR-33", "CR-43"}));
}

TEST_F(ConformanceTest, SendsNoPinToOneOfSeveralCardsUnlessItsReaderIsNamed) {
  (void)script.addSlot("Reader B", emptyCard("B", "2"));
  const Conformance found = tested();
  EXPECT_EQ(given->timesAsked(), 0U);
  EXPECT_EQ(verdictsOf(found).at("CR-33"), RuleVerdict::kUnknown);
  EXPECT_EQ(found.verdict(), RuleVerdict::kWarn);
  reader = Text{u"Reader A 00"};
  EXPECT_EQ(verdictsOf(tested()).at("CR-33"), RuleVerdict::kPass);
}

TEST_F(ConformanceTest, WarnsWhereALoginWasAskedForAndNoPinGiven) {
  given.emplace();
  const Conformance found = tested();
  EXPECT_EQ(verdictsOf(found).at("CR-33"), RuleVerdict::kUnknown);
  EXPECT_EQ(found.verdict(), RuleVerdict::kWarn);
}

TEST_F(ConformanceTest, DoesNotPassRulesAboutKeysThatAreNotThere) {
  for (std::size_t i = kPublic1; i <= kCertificate1; ++i) script.card().objects.erase(objects[i]);
  const Conformance found = tested();
  EXPECT_THAT(numbersWith(RuleVerdict::kSkip, found),
              ::testing::IsSupersetOf({"CR-36", "CR-37", "CR-38", "CR-39", "CR-40", "CR-43", "CR-46"}));
  EXPECT_EQ(found.grade.sentence, "S/MIME decryption; no signatures");
}

TEST_F(ConformanceTest, TakesAModuleThatWasNamedForOneThatCanBeElsewhere) {
  module = kScriptedModule;
  const Verdicts verdicts = verdictsOf(tested(false));
  EXPECT_EQ(verdicts.at("CR-01"), RuleVerdict::kSkip);
  EXPECT_EQ(verdicts.at("CR-03"), RuleVerdict::kPass);
}

TEST_F(ConformanceTest, OnlyWarnsOfAModuleThatDoesNotPad) {
  script.failCallOf("C_Sign", 3, CKR_DATA_LEN_RANGE);  // SHA-512 does not fit the key
  const Conformance found = tested();
  EXPECT_THAT(numbersWith(RuleVerdict::kWarn, found), ElementsAre("CR-46"));
  EXPECT_EQ(found.verdict(), RuleVerdict::kWarn);
  EXPECT_EQ(found.grade.letter, "B");
}

TEST_F(ConformanceTest, OnlyWarnsOfAPinThatHasToBeChanged) {
  script.card().info.flags |= CKF_USER_PIN_TO_BE_CHANGED;
  EXPECT_THAT(numbersWith(RuleVerdict::kWarn, tested(false)), ElementsAre("CR-53"));
}

TEST_F(ConformanceTest, TakesAnEcKeyThatDecryptsForNoKeyThatSigns) {
  addEcKey(kForDecrypting);
  EXPECT_THAT(numbersWith(RuleVerdict::kFail, tested()), ElementsAre("CR-47"));
}

TEST_F(ConformanceTest, LeavesOpenWhatTheCertificateOfAnotherKeySays) {
  for (const auto& [usage, rule] : {std::pair{kForSigning, "CR-36"}, std::pair{kForCertificates, "CR-29"}}) {
    makeGood();
    addEcKey(usage);
    value(kPublic3, CKA_EC_POINT).back() ^= 1U;
    EXPECT_EQ(verdictsOf(tested(false)).at(rule), RuleVerdict::kUnknown) << rule;
  }
}

TEST_F(ConformanceTest, LeavesOpenWhetherACardHasANameOfItsOwnWhereAnotherCannotBeRead) {
  const CK_SLOT_ID other = script.addSlot("Reader B", script.card());
  script.hook<&CK_FUNCTION_LIST::C_GetTokenInfo>([other](auto real, auto slot, auto* info) {
    return slot == other ? CKR_DEVICE_ERROR : real(slot, info);
  });
  reader = Text{u"Reader A 00"};
  const Conformance found = tested(false);
  EXPECT_THAT(numbersWith(RuleVerdict::kUnknown, found), ElementsAre("CR-30"));
}

// ---- Rules that are broken ----

class BrokenRules : public ConformanceTest {
 protected:
  struct Row {
    const char* number;
    std::function<void()> breakIt;
  };

  template <typename Change>
  void hookAttributes(Change change) {
    script.hook<&CK_FUNCTION_LIST::C_GetAttributeValue>(
        [change](auto real, auto session, auto object, auto* entries, auto count) {
          const bool isNull = !entries->pValue;
          const CK_ULONG room = entries->ulValueLen;
          return change(real(session, object, entries, count), object, *entries, isNull, room);
        });
  }
  void failFromThenOn(const char* function, CK_RV code) {
    script.failCallOf(function, 0, code, Times::kFromThenOn);
  }

  const std::vector<Row> rows{
      {"CR-01", [this] { module = "/nowhere/module.so"; }},
      {"CR-02", [this] { module = kModuleWithoutEntry; }},
      {"CR-03", [this] { failFromThenOn("C_Initialize", CKR_ARGUMENTS_BAD); }},
      {"CR-04",
       [this] {
         script.hook<&CK_FUNCTION_LIST::C_Initialize>([](auto real, auto* arguments) {
           (void)real(arguments);
           return CKR_OK;
         });
       }},
      {"CR-05", [this] { script.failCallOf("C_GetSlotList", 2, CKR_CANT_LOCK); }},
      {"CR-06", [this] { script.removeEntry("C_DecryptInit"); }},
      {"CR-07", [this] { script.failCallOf("C_OpenSession", 1, CKR_SESSION_COUNT); }},
      {"CR-08", [this] { (void)script.addSlot("Reader A 00"); }},
      {"CR-09", [this] { script.slot().info.slotDescription[63] = 0; }},
      {"CR-11", [this] { script.slots().clear(); }},
      {"CR-12", [this] { value(kPublic1, CKA_PRIVATE) = boolValue(true); }},
      {"CR-12",  // attributes can be read one by one alone, so nothing is published
       [this] {
         script.hook<&CK_FUNCTION_LIST::C_GetAttributeValue>(
             [](auto real, auto session, auto object, auto* entries, CK_ULONG count) {
               return count > 1 ? CK_RV{CKR_ARGUMENTS_BAD} : real(session, object, entries, count);
             });
       }},
      {"CR-13", [this] { value(kCertificate1, CKA_ID) = bytesOf("09"); }},
      {"CR-14", [this] { value(kPublic1, CKA_LABEL).clear(); }},
      {"CR-15", [this] { value(kCertificate1, CKA_ID) = bytesOf("02"); }},
      {"CR-16",
       [this] {
         value(kCertificate1, CKA_VALUE) = SoftwareKey::rsa(1024, "other").certificate(kForSigning);
       }},
      {"CR-17", [this] { script.card().objects.erase(objects[kPrivate1]); }},
      {"CR-18", [this] { value(kCertificate1, CKA_VALUE).resize(40); }},
      {"CR-19", [this] { value(kPublic1, CKA_KEY_TYPE) = ulongValue(CKK_DSA); }},
      {"CR-20", [this] { value(kCertificate1, CKA_VALUE).resize(2001); }},
      {"CR-21", [this] { value(kCertificate1, CKA_LABEL).resize(257, 'a'); }},
      {"CR-22", [this] { value(kPublic1, CKA_LABEL).resize(2001, 'a'); }},
      {"CR-23", [this] { value(kPublic1, CKA_ID).resize(255, 'a'); }},
      {"CR-24", [this] { value(kPublic1, CKA_MODULUS).resize(640, 1); }},
      {"CR-25", [this] { addEcKey(kForSigning), value(kPublic3, CKA_EC_POINT).resize(201); }},
      {"CR-26", [this] { addEcKey(kForSigning), value(kPublic3, CKA_EC_PARAMS).clear(); }},
      {"CR-27",
       [this] {
         for (int i = 0; i < 161; ++i)
           script.addObject(rsaPublicKey(bytesOf("x"), bytesOf("y"), Value(128, 1)));
       }},
      {"CR-28",
       [this] {
         for (int i = 0; i < 161; ++i)
           script.addObject(certificate(bytesOf("x"), bytesOf("y"), Value(99, 1)));
       }},
      {"CR-29",
       [this] { value(kCertificate1, CKA_VALUE) = SoftwareKey::rsa(1024).certificate(kForAgreement); }},
      {"CR-30",
       [this] { setField(script.card().info.label, ""), setField(script.card().info.serialNumber, ""); }},
      {"CR-31", [this] { script.card().info.ulMinPinLen = 9; }},
      {"CR-32", [this] { script.card().info.flags |= CKF_PROTECTED_AUTHENTICATION_PATH; }},
      {"CR-33",
       [this] {
         given.emplace(std::deque<std::u16string>{u"999999"});
         given->again = false;
       }},
      {"CR-33",  // nobody could log in
       [this] {
         script.hook<&CK_FUNCTION_LIST::C_GetSessionInfo>([this](auto real, auto session, auto* info) {
           return script.card().loggedIn ? CK_RV{CKR_ARGUMENTS_BAD} : real(session, info);
         });
       }},
      {"CR-34",
       [this] {
         script.hook<&CK_FUNCTION_LIST::C_GetSessionInfo>([this](auto real, auto session, auto* info) {
           const CK_RV rv = real(session, info);
           if (script.card().loggedIn) info->ulDeviceError = 3;
           return rv;
         });
       }},
      {"CR-36", [this] { addEcKey(kForSigning); }},
      {"CR-37",
       [this] {
         hookAttributes([this](CK_RV rv, auto object, CK_ATTRIBUTE& entry, bool, CK_ULONG) -> CK_RV {
           const bool hides = script.card().loggedIn && object == objects[kPublic1];
           return hides && entry.type == CKA_MODULUS ? CKR_ATTRIBUTE_SENSITIVE : rv;
         });
       }},
      {"CR-38", [this] { value(kPrivate1, CKA_TOKEN) = boolValue(false); }},
      {"CR-39", [this] { failFromThenOn("C_Sign", CKR_FUNCTION_FAILED); }},
      {"CR-40", [this] { value(kPublic1, CKA_LABEL) = bytesOf("the Pss key"); }},
      {"CR-41", [this] { value(kPrivate1, CKA_ALWAYS_AUTHENTICATE) = boolValue(true); }},
      {"CR-42", [this] { script.failCallOf("C_Sign", 0, CKR_FUNCTION_FAILED); }},
      {"CR-43", [this] { script.failCallOf("C_Sign", 1, CKR_FUNCTION_FAILED); }},
      {"CR-44", [this] { script.failCallOf("C_Sign", 2, CKR_FUNCTION_FAILED); }},
      {"CR-45",
       [this] {
         makeCard(SoftwareKey::rsa(2048));
         script.failCallOf("C_Sign", 3, CKR_FUNCTION_FAILED);
       }},
      {"CR-47", [this] { addEcKey(kForDecrypting); }},
      {"CR-48", [this] { script.object(objects[kPrivate2]).sensitive.insert(CKA_MODULUS); }},
      {"CR-49", [this] { script.deviations.plainText = Value(32, 0x55); }},
      {"CR-51",
       [this] {
         hookAttributes([](CK_RV rv, auto, CK_ATTRIBUTE&, bool isNull, CK_ULONG) -> CK_RV {
           return isNull ? CKR_BUFFER_TOO_SMALL : rv;
         });
       }},
      {"CR-52",
       [this] {
         hookAttributes([](CK_RV rv, auto, CK_ATTRIBUTE& entry, bool isNull, CK_ULONG room) {
           if (rv == CKR_BUFFER_TOO_SMALL && !isNull) static_cast<CK_BYTE*>(entry.pValue)[room] = 0;
           return rv;
         });
       }},
  };
};

TEST_F(BrokenRules, FailOneByOne) {
  std::set<std::string> missing;
  for (const ConformanceRule& rule : conformanceRules()) missing.emplace(rule.number);
  for (const auto& [number, breakIt] : rows) {
    SCOPED_TRACE(number);
    makeGood();
    breakIt();
    const Conformance found = tested();
    EXPECT_THAT(numbersWith(RuleVerdict::kFail, found), Contains(number));
    EXPECT_EQ(found.verdict(), RuleVerdict::kFail);
    missing.erase(number);
  }
  // On a Mac only, with a wrong PIN, only a warning, by hand.
  EXPECT_THAT(missing, ElementsAre("CR-10", "CR-35", "CR-46", "CR-50", "CR-53"));
}

TEST_F(BrokenRules, NeverPassWhereACallOfTheModuleFails) {
  const struct {
    std::function<void()> breakIt;
    bool login;
    std::vector<const char*> numbers;
  } cards[] = {
      {[this] {
         addEcKey(kForSigning);
         value(kPublic1, CKA_LABEL) = bytesOf("PSS");
         value(kCertificate1, CKA_VALUE) = SoftwareKey::rsa(1024, "other").certificate(kForSigning);
         script.card().objects.erase(objects[kPrivate1]);
         value(kPrivate2, CKA_ALWAYS_AUTHENTICATE) = boolValue(true);
         script.object(objects[kPrivate2]).sensitive.insert(CKA_MODULUS);
       },
       true,
       {"CR-16", "CR-17", "CR-36", "CR-38", "CR-40", "CR-41", "CR-48", "CR-49"}},
      {[this] {
         script.card().info.flags |= CKF_PROTECTED_AUTHENTICATION_PATH;
         value(kPublic1, CKA_KEY_TYPE) = ulongValue(CKK_DSA);
         value(kCertificate1, CKA_ID) = bytesOf("09");
         script.addObject(certificate(bytesOf("05"), bytesOf(""), Value(2001, 1)));
       },
       false,
       {"CR-12", "CR-13", "CR-14", "CR-19", "CR-20", "CR-32"}},
  };
  for (const auto& [breakIt, login, numbers] : cards) {
    for (const Times times : {Times::kOnce, Times::kFromThenOn}) {
      const std::size_t step = times == Times::kOnce ? 2 : 7;
      for (std::size_t n = 0;; n += step) {
        SCOPED_TRACE(n);
        makeGood();
        breakIt();
        script.failCall(n, CKR_DEVICE_ERROR, times);
        const Verdicts verdicts = verdictsOf(tested(login));
        for (const char* number : numbers) EXPECT_NE(verdicts.at(number), RuleVerdict::kPass) << number;
        if (!script.fired()) break;
      }
    }
  }
}

TEST_F(ConformanceTest, FailsACardOfWhichNothingIsPublished) {
  script.card().objects.clear();
  script.addObject(certificate(bytesOf("09"), bytesOf("Root"), authorityCertificate(kForCertificates)));
  const Conformance found = tested(false);
  EXPECT_EQ(found.grade.letter, "F");
  EXPECT_THAT(numbersWith(RuleVerdict::kFail, found), ElementsAre("CR-12"));
}

// ---- Calls that fail ----

TEST_F(ConformanceTest, TellsNothingMoreOfAModuleThatAnswersNoMore) {
  script.failCallOf("C_GetSlotList", 0, CKR_GENERAL_ERROR, Times::kFromThenOn);
  const Conformance found = tested();
  EXPECT_THAT(numbersWith(RuleVerdict::kPass, found),
              ElementsAre("CR-01", "CR-02", "CR-03", "CR-04", "CR-06"));
  EXPECT_EQ(found.grade.letter, "F");
}

TEST_F(ConformanceTest, LeavesOpenWhatTheModuleIsNotToBlameFor) {
  const struct {
    const char* name;
    std::function<void()> breakIt;
    std::vector<std::string> numbers;
  } rows[] = {
      {"card at the first signature",
       [this] { script.failCallOf("C_Sign", 0, CKR_DEVICE_ERROR); },
       {"CR-42"}},
      {"card at the decryption", [this] { script.failCallOf("C_Decrypt", 0, CKR_DEVICE_ERROR); }, {"CR-49"}},
      {"card at the login", [this] { script.failCallOf("C_Login", 0, CKR_DEVICE_ERROR); }, {"CR-33"}},
      {"another reader", [this] { reader = Text{u"Reader X"}; }, {"CR-11"}},
      {"card that another program holds",
       [this] {
         script.pullCard();
         script.failCallOf("C_GetSlotInfo", 0, CKR_DEVICE_ERROR, Times::kFromThenOn);
       },
       {"CR-08", "CR-09", "CR-11"}},
      {"card in the second thread",
       [this] { script.failCallOf("C_GetSlotList", 2, CKR_DEVICE_ERROR); },
       {"CR-05"}},
      {"card at the first session",
       [this] { script.failCallOf("C_OpenSession", 0, CKR_DEVICE_ERROR); },
       {"CR-07"}},
      {"another key with its ID",
       [this] {
         script.addObject(
             rsaPrivateKey(bytesOf("02"), bytesOf("Other"), SoftwareKey::rsa(1024, "other").modulus()));
         script.deviations.plainText = Value(32, 0x55);
       },
       {"CR-49"}},
  };
  for (const auto& [name, breakIt, numbers] : rows) {
    SCOPED_TRACE(name);
    makeGood();
    breakIt();
    EXPECT_EQ(numbersWith(RuleVerdict::kUnknown, tested()), numbers);
  }
}

TEST_F(ConformanceTest, GivesNoGradeToACardThatLeavesOrIsNotReadForAReasonThatSaysNothingOfIt) {
  const std::vector<const char*> reading{"C_FindObjects", "C_GetAttributeValue"};
  const std::vector<const char*> all{"C_OpenSession", "C_FindObjects", "C_GetAttributeValue"};
  const struct {
    CK_RV answer;
    const std::vector<const char*>& calls;
  } rows[] = {{CKR_DEVICE_REMOVED, all},
              {CKR_DEVICE_ERROR, all},
              {CKR_GENERAL_ERROR, reading},
              {CKR_FUNCTION_FAILED, reading}};
  for (const auto& [answer, calls] : rows) {
    for (const char* call : calls) {
      SCOPED_TRACE(call + std::to_string(answer));
      makeGood();
      script.failCallOf(call, 0, answer, Times::kFromThenOn);
      const Conformance found = tested();
      EXPECT_EQ(found.grade.letter, "-");
      EXPECT_THAT(numbersWith(RuleVerdict::kFail, found), IsEmpty());
      EXPECT_EQ(found.verdict(), RuleVerdict::kWarn);
    }
  }
}

// ---- The grade ----

TEST(Grades, SayWhatUsersWillBeAbleToDo) {
  const struct {
    CardAbilities abilities;
    const char* letter;
    const char* sentence;
  } rows[] = {
      {{true, true, true, true}, "A", "TLS login, S/MIME and PDF signatures, and S/MIME decryption"},
      {{true, true, false, true}, "B", "TLS 1.3 login and S/MIME decryption; no PKCS #1 v1.5 signatures"},
      {{true, true, true, false}, "B", "TLS login, S/MIME and PDF signatures; no decryption"},
      {{true, true, false, false}, "C", "TLS 1.3 login; no PKCS #1 v1.5 signatures, no decryption"},
      {{true, false, true, true}, "D", "PKCS #1 v1.5 signatures and S/MIME decryption; no TLS 1.3 login"},
      {{true, false, true, false}, "D", "PKCS #1 v1.5 signatures; no TLS 1.3 login, no decryption"},
      {{true, false, false, true}, "D", "S/MIME decryption; no signatures"},
      {{true, false, false, false}, "E", "certificates are shown, and no key signs or decrypts"},
      {{false, {}, {}, {}}, "F", "nothing is published"},
      {{true, true, {}, true},
       "-",
       "certificates are published; what the keys do was not all seen, which takes a login and trials that "
       "tell something"},
      {{}, "-", "not known: no card was read"},
  };
  for (const auto& [abilities, letter, sentence] : rows) {
    EXPECT_EQ(gradeOf(abilities).letter, letter);
    EXPECT_EQ(gradeOf(abilities).sentence, sentence);
  }
}

}  // namespace
}  // namespace mirel::test
