#include "host/Finding.h"

#include <gtest/gtest.h>

#include <set>
#include <string>
#include <vector>

#include "host/Doctor.h"

namespace mirel {
namespace {

TEST(Finding, HasACodeOfItsOwnInTheOrderOfTheCodesOfItsKind) {
  std::set<std::string> codes;
  std::string before;
  for (const FindingEntry& entry : findingCatalogue()) {
    const std::string code{entry.code};
    SCOPED_TRACE(code);
    ASSERT_EQ(code.size(), 6U);
    EXPECT_TRUE(code.starts_with("MT-"));
    EXPECT_TRUE(codes.insert(code).second);
    if (before.substr(0, 4) == code.substr(0, 4)) {
      EXPECT_EQ(std::stoi(code.substr(4)), std::stoi(before.substr(4)) + 1);
    }
    before = code;
  }
}

TEST(Finding, HasAnEntryForEachID) {
  for (int i = 0; i <= static_cast<int>(FindingID::kSystemToolFails); ++i) {
    const auto id = static_cast<FindingID>(i);
    ASSERT_LT(static_cast<std::size_t>(i), findingCatalogue().size());
    EXPECT_EQ(findingCatalogue()[static_cast<std::size_t>(i)].id, id) << i;
    EXPECT_EQ(entryOf(id).id, id);
  }
  EXPECT_EQ(findingCatalogue().size(), static_cast<std::size_t>(FindingID::kSystemToolFails) + 1);
}

TEST(Finding, SaysWhatWhyAndWhatToDoWithoutAFullStop) {
  for (const FindingEntry& entry : findingCatalogue()) {
    SCOPED_TRACE(entry.code);
    for (const std::string_view text : {entry.title, entry.why, entry.remedy}) {
      ASSERT_GT(text.size(), 5U);
      EXPECT_NE(text.back(), '.');
    }
  }
}

TEST(Finding, IsFoundByItsCodeInUpperAndLowerCase) {
  ASSERT_NE(findEntry("MT-C02"), nullptr);
  EXPECT_EQ(findEntry("MT-C02")->id, FindingID::kObjectHidesCard);
  EXPECT_EQ(findEntry("mt-c02"), findEntry("MT-C02"));
  for (const char* unknown : {"", "MT-C", "MT-C020", "MT-Z01", "C02"}) EXPECT_EQ(findEntry(unknown), nullptr);
}

TEST(Finding, OfTheWorstKindDecides) {
  const auto worst = [](std::initializer_list<Severity> severities) {
    std::vector<Finding> findings;
    for (const Severity severity : severities) findings.push_back({FindingID::kCardEmpty, severity, "", ""});
    return worstOf(findings);
  };
  using enum Severity;
  EXPECT_EQ(worst({}), kOk);
  EXPECT_EQ(worst({kOk, kSkipped}), kOk);
  EXPECT_EQ(worst({kOk, kUnknown, kSkipped}), kUnknown);
  EXPECT_EQ(worst({kWarning, kUnknown}), kWarning);
  EXPECT_EQ(worst({kWarning, kFailure, kUnknown}), kFailure);
}

TEST(Finding, NamesTheReaderOfItsCardWhereSeveralCardsWereExamined) {
  using enum FindingID;
  using enum Severity;
  const auto checkOf = [](std::string reader, std::vector<Finding> findings) {
    return Check{"card", kFailure, "", std::move(findings), std::move(reader)};
  };
  const std::vector<Finding> onEachCard{
      {kCardEmpty, kFailure, "", ""},
      {kRsaKeyTooLong, kFailure, "key 01", ""},
      {kInstanceIDShared, kWarning, "readers \"A\" and \"B\"", ""},  // names them
      {kLoginNotMade, kWarning, "", "there are several cards"},      // is about the one login
      {kCardServiceSilent, kFailure, "", ""},
  };
  const Check spare{"card", kSkipped, "it is not initialised", {}, "B"};
  const auto subjectsOf = [](std::vector<Check> checks) {
    std::vector<std::string> subjects;
    for (const Finding& finding : Diagnosis{std::move(checks)}.findings())
      subjects.push_back(finding.subject);
    return subjects;
  };
  EXPECT_EQ(subjectsOf({checkOf("A", onEachCard), spare}),
            (std::vector<std::string>{"", "key 01", "readers \"A\" and \"B\"", "", ""}));
  EXPECT_EQ(subjectsOf({checkOf("A", onEachCard), checkOf("B", onEachCard)}),
            (std::vector<std::string>{"reader \"A\"", "key 01, reader \"A\"", "readers \"A\" and \"B\"", "",
                                      "", "reader \"B\"", "key 01, reader \"B\""}));
}

}  // namespace
}  // namespace mirel
