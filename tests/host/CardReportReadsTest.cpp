/// What a report costs, and what it says when the module fails while it is made.

#include <algorithm>
#include <iterator>
#include <set>
#include <sstream>

#include "host/CardReportTest.h"
#include "host/CryptokiNames.h"
#include "host/KeyChoice.h"
#include "support/AddressSanitizer.h"

namespace mirel::test {
namespace {

using enum FindingID;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::IsSupersetOf;
using ::testing::StartsWith;

/// What is said not to work.
std::vector<Finding> claimsOf(const CardReport& report) {
  std::vector<Finding> claims;
  for (const Finding& finding : report.findings) {
    const bool isClaim = finding.severity == Severity::kFailure || finding.severity == Severity::kWarning;
    if (isClaim) claims.push_back(finding);
  }
  return claims;
}

/// Whether that is said of an object that is named at least as exactly: an ID or a label may not be read.
bool isAmong(const std::vector<Finding>& claims, const Finding& wanted) {
  const auto has = [](const std::string& subject, const std::string& part) {
    std::istringstream words{part};
    return std::all_of(std::istream_iterator<std::string>{words}, {},
                       [&](const std::string& word) { return subject.find(word) != std::string::npos; });
  };
  return std::any_of(claims.begin(), claims.end(), [&](const Finding& claim) {
    return claim.id == wanted.id && has(claim.subject, wanted.subject);
  });
}

/// Whether it is said that the module failed.
bool tellsOfAFailure(const CardReport& report) {
  return std::any_of(report.findings.begin(), report.findings.end(), [](const Finding& finding) {
    return finding.severity == Severity::kUnknown &&
           (finding.id == kObjectUnread || finding.id == kTokenUnreadable || finding.id == kCardWentAway);
  });
}

class CardReportReads : public CardReportTest {
 protected:
  /// Good keys, and something of each kind that is missing or does not fit.
  void makeCard() {
    clearCard();
    addKey("01", "Signer");
    addCertificate("03", "Without key");
    addPublicKey("04", "Without certificate");
    addPublicKey("05", "Two keys, the first is right");
    addPublicKey("05", "Two keys, the second is wrong", otherRsa());
    addCertificate("05", "Two keys");
    addCertificate("05", "Two keys, renewed");
    addPublicKey("06", "Private");
    lastObject() = lastObject().with(CKA_PRIVATE, boolValue(true));
    addPrivateKey("06", "Private");
    addCertificate("06", "Private");
    addPrivateKey("07", "Alone");
    addPublicKey("08", "Without private key");
    addCertificate("08", "Without private key");
  }

  /// Checks that no call that fails while `examine` runs, on a card made anew, makes the report claim what it
  /// does not claim else.
  void expectNoFalseClaims(const std::function<CardReport(const std::function<void()>& whenReady)>& examine) {
    const CardReport goodReport = examine([] {});
    const std::vector<Finding> good = claimsOf(goodReport);
    EXPECT_FALSE(good.empty());
    EXPECT_FALSE(tellsOfAFailure(goodReport));
    std::vector<CK_RV> codes{CKR_DEVICE_REMOVED};
    // A sanitizer, under which this takes ten times as long, would see the same of another code.
    if (!kHasAddressSanitizer) codes.push_back(CKR_DEVICE_ERROR);
    for (const CK_RV code : codes) {
      forEachFailingCall(script, code, [&](FailPoint& point) {
        script.setInitialised(true);
        const CardReport report = examine([&] { point.arm(); });
        const auto claims = claimsOf(report);
        for (const Finding& claim : claims) {
          EXPECT_TRUE(isAmong(good, claim)) << entryOf(claim.id).title << ": " << claim.subject;
        }
        if (!point.fired()) {
          EXPECT_EQ(claims.size(), good.size());
        }
        EXPECT_TRUE(tellsOfAFailure(report) || !hasFailed(code));
        if (!goodReport.hidden) expectNoFalseUnpublished(report, goodReport);
      });
    }
  }

  /// The types in each call that asked for attributes.
  [[nodiscard]] std::vector<std::string> attributesAsked() const {
    std::vector<std::string> asked;
    for (const std::string& text : script.callTexts("C_GetAttributeValue")) {
      std::istringstream words{text};
      std::string types;
      for (std::string word; words >> word;) {
        const std::size_t start = word.find("CKA_");
        if (start != std::string::npos) types.append(types.empty() ? "" : " ").append(word, start);
      }
      asked.push_back(types);
    }
    return asked;
  }

  /// Whether something could not be read because of a call that answered with the code. What is asked for
  /// together is asked for alone then.
  [[nodiscard]] bool hasFailed(CK_RV code) const {
    const auto& calls = script.calls();
    for (std::size_t i = 0; i < calls.size(); ++i) {
      const bool tidiesUp =
          calls[i].function == "C_CloseSession" || calls[i].function == "C_FindObjectsFinal";
      const bool madeGood =
          i + 1 < calls.size() && calls[i + 1].text == calls[i].text && calls[i + 1].result == CKR_OK;
      const bool isAskedAlone = calls[i].text.find(", CKA_") != std::string::npos;
      if (calls[i].result == code && !tidiesUp && !madeGood && !isAskedAlone) return true;
    }
    return false;
  }

  /// That no published object is said not to be, nothing is said of one that could not be read, and no reason
  /// is given but the one that is given where nothing fails.
  static void expectNoFalseUnpublished(const CardReport& report, const CardReport& good) {
    for (const UnpublishedObject& object : report.unpublished) {
      if (object.unread) {
        EXPECT_THAT(object.reason, HasSubstr("could not be read now, C_GetAttributeValue"));
        continue;
      }
      const auto isIt = [&](const UnpublishedObject& other) {
        return other.kind == object.kind && (object.label.isEmpty() || other.label == object.label) &&
               (object.id.isEmpty() || other.id == object.id) &&
               (other.reason.starts_with(object.reason) ||
                object.reason.starts_with("why cannot be told now, C_"));
      };
      EXPECT_TRUE(std::any_of(good.unpublished.begin(), good.unpublished.end(), isIt))
          << object.kind << " " << object.label.toUtf8() << ": " << object.reason;
    }
  }
};

TEST_F(CardReportReads, ClaimNothingBecauseOfACallThatFails) {
  expectNoFalseClaims([&](const std::function<void()>& whenReady) {
    makeCard();
    const InsertedCard card = inserted();
    whenReady();
    return host.examine(card);
  });
}

TEST_F(CardReportReads, ClaimNothingBecauseOfACallThatFailsAfterALogin) {
  expectNoFalseClaims([&](const std::function<void()>& whenReady) {
    makeCard();
    script.card().loggedIn = false;
    const InsertedCard card = inserted();
    script.card().loggedIn = true;
    whenReady();
    return host.examine(card, true);
  });
}

TEST_F(CardReportReads, ClaimNothingOfAHiddenCardBecauseOfACallThatFails) {
  expectNoFalseClaims([&](const std::function<void()>& whenReady) {
    makeCard();
    addKey("09", "Broken");
    lastObject() = lastObject().with(CKA_LABEL, {});
    const auto found = readers();
    whenReady();
    return host.examine(found.front());
  });
}

TEST_F(CardReportReads, TellTheCallThatFailed) {
  const struct {
    const char* function;
    CK_RV code;
  } rows[] = {
      {"C_GetTokenInfo", CKR_DEVICE_ERROR},
      {"C_OpenSession", CKR_DEVICE_ERROR},
      {"C_FindObjectsInit", CKR_DEVICE_ERROR},
      {"C_FindObjects", CKR_DEVICE_ERROR},
      {"C_GetAttributeValue", CKR_DEVICE_ERROR},
      // Answers of an object, which a search is not.
      {"C_FindObjectsInit", CKR_ATTRIBUTE_TYPE_INVALID},
      {"C_FindObjectsInit", CKR_ATTRIBUTE_SENSITIVE},
      {"C_FindObjects", CKR_ATTRIBUTE_TYPE_INVALID},
      {"C_FindObjects", CKR_ATTRIBUTE_SENSITIVE},
  };
  for (const auto& row : rows) {
    const std::string told = std::string{row.function} + " answered " + cryptokiResultText(row.code);
    SCOPED_TRACE(told);
    script.reset();
    clearCard();
    addKey("01", "Signer");
    const InsertedCard card = inserted();
    script.failCallOf(row.function, 0, row.code, Times::kFromThenOn);
    const CardReport report = host.examine(card);
    EXPECT_THAT(report.failedRead, StartsWith(told));
    EXPECT_THAT(claimsOf(report), IsEmpty());
    EXPECT_TRUE(std::any_of(report.findings.begin(), report.findings.end(), [&](const Finding& finding) {
      return finding.id == kObjectUnread && finding.evidence == report.failedRead;
    }));
  }
}

TEST_F(CardReportReads, TellOnceThatTheCardWentAway) {
  for (const CK_RV code : {CKR_DEVICE_REMOVED, CKR_TOKEN_NOT_PRESENT, CKR_SESSION_HANDLE_INVALID}) {
    for (const char* function :
         {"C_GetTokenInfo", "C_OpenSession", "C_FindObjectsInit", "C_FindObjects", "C_GetAttributeValue"}) {
      SCOPED_TRACE(std::string{function} + " " + cryptokiResultText(code));
      script.reset();
      clearCard();
      addKey("01", "Signer");
      const InsertedCard card = inserted();
      script.failCallOf(function, 0, code, Times::kFromThenOn);
      const CardReport report = host.examine(card);
      const Finding gone = theFinding(report, kCardWentAway);
      EXPECT_EQ(gone.severity, Severity::kUnknown);
      EXPECT_EQ(gone.subject, "reader \"Reader A 00\"");
      EXPECT_THAT(gone.evidence, StartsWith(std::string{function} + " answered " + cryptokiResultText(code)));
      EXPECT_TRUE(std::none_of(report.findings.begin(), report.findings.end(),
                               [](const Finding& finding) { return finding.id == kObjectUnread; }));
    }
  }
}

TEST_F(CardReportReads, TellThatTheCardWentAwayBeforeItsPrivateKeysWereRead) {
  clearCard();
  addKey("01", "Signer");
  const InsertedCard card = inserted();
  script.failCallOf("C_FindObjectsInit", 2, CKR_DEVICE_REMOVED);
  const CardReport report = host.examine(card);
  EXPECT_EQ(report.failedRead, "");
  EXPECT_THAT(theFinding(report, kCardWentAway).evidence, StartsWith("C_FindObjectsInit answered"));
}

TEST_F(CardReportReads, GiveNoReasonThatMayBeWrong) {
  makeCard();
  const InsertedCard card = inserted();
  script.failCallOf("C_FindObjects", 0, CKR_DEVICE_ERROR);  // no key is found
  const auto objects = host.examine(card).unpublished;
  const auto lonely = std::find_if(objects.begin(), objects.end(), [](const UnpublishedObject& object) {
    return object.label == Text{u"Without key"};
  });
  ASSERT_NE(lonely, objects.end());
  EXPECT_THAT(lonely->reason, HasSubstr("why cannot be told now, C_FindObjects answered"));
}

TEST_F(CardReportReads, SayNothingOfAnotherCardThatIsInTheReaderNow) {
  makeCard();
  const InsertedCard card = inserted();
  script.insertCard(emptyCard("OTHER", "2"));
  const CardReport report = host.examine(card);
  EXPECT_THAT(claimsOf(report), IsEmpty());
  EXPECT_THAT(report.unpublished, IsEmpty());
  EXPECT_EQ(report.failedRead, "the reader holds another card than before");
  EXPECT_EQ(report.keys.size(), keysOf(card).size());

  // Whether it is another one cannot be told.
  script.failCallOf("C_GetTokenInfo", 0, CKR_DEVICE_ERROR);
  const CardReport blind = host.examine(card);
  EXPECT_THAT(claimsOf(blind), IsEmpty());
  EXPECT_THAT(blind.unpublished, IsEmpty());
  EXPECT_THAT(blind.failedRead, StartsWith("C_GetTokenInfo answered CKR_DEVICE_ERROR"));
}

TEST_F(CardReportReads, FindEachClassOnceAndReadNoAttributeTwice) {
  makeCard();
  script.card().privateObjectsNeedLogin = false;
  const InsertedCard card = inserted();
  script.forgetCalls();
  (void)host.examine(card);
  EXPECT_EQ(script.countOf("C_FindObjectsInit"), 3U);
  EXPECT_EQ(script.countOf("C_GetTokenInfo"), 1U);
  EXPECT_EQ(script.countOf("C_OpenSession"), 1U);
  const auto reads = script.callTexts("C_GetAttributeValue");
  EXPECT_EQ(std::set<std::string>(reads.begin(), reads.end()).size(), reads.size());
  EXPECT_THAT(script.openSearches(), IsEmpty());
}

TEST_F(CardReportReads, AskForTheAttributesOfAnObjectTogether) {
  clearCard();
  addKey("01", "Signer");
  const InsertedCard card = inserted();
  script.forgetCalls();
  (void)host.examine(card);
  EXPECT_THAT(attributesAsked(),
              ElementsAre("CKA_LABEL CKA_ID CKA_KEY_TYPE", "CKA_LABEL CKA_ID CKA_KEY_TYPE", "CKA_MODULUS",
                          "CKA_MODULUS", "CKA_LABEL CKA_ID CKA_VALUE", "CKA_LABEL CKA_ID CKA_VALUE"));
}

TEST_F(CardReportReads, AskOneByOneWhereThatDoesNotWork) {
  clearCard();
  addKey("01", "Signer");
  const InsertedCard card = inserted();
  const std::pair<const char*, std::function<CK_RV(CK_ATTRIBUTE*)>> rows[] = {
      {"a module that gives one value at a time", [](CK_ATTRIBUTE*) { return CKR_FUNCTION_FAILED; }},
      {"a length that changes",
       [](CK_ATTRIBUTE* attributes) {
         if (attributes[1].pValue) attributes[1].ulValueLen = 0;
         return CKR_OK;
       }},
      {"types that change places",
       [](CK_ATTRIBUTE* attributes) {
         std::swap(attributes[0].type, attributes[1].type);
         return CKR_OK;
       }},
  };
  for (const auto& [what, change] : rows) {
    SCOPED_TRACE(what);
    script.hook<&CK_FUNCTION_LIST::C_GetAttributeValue>(
        [&, answer = change](auto real, auto session, auto object, CK_ATTRIBUTE* attributes, CK_ULONG count) {
          const CK_RV rv = real(session, object, attributes, count);
          return count == 3 && rv == CKR_OK ? answer(attributes) : rv;
        });
    const CardReport report = host.examine(card);
    EXPECT_THAT(report.unpublished, IsEmpty());
    EXPECT_THAT(claimsOf(report), IsEmpty());
    EXPECT_EQ(report.failedRead, "");
  }
}

}  // namespace
}  // namespace mirel::test
