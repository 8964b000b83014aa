#include "RuleNotes.h"

#include <gtest/gtest.h>

#include <algorithm>

namespace mirel::cli {
namespace {

RuleResult resultOf(std::string_view number, const std::vector<RuleResult>& results) {
  return *std::find_if(results.begin(), results.end(),
                       [&](const RuleResult& result) { return result.rule.number == number; });
}

TEST(RuleNotes, HaveWhatTheRulesCameToAndSkipTheOthers) {
  const auto rules = conformanceRules();
  const auto results = resultsFrom(noteOf({{rules[0], RuleVerdict::kFail, "it\x1B[2J is gone"}}));
  ASSERT_EQ(results.size(), rules.size());
  EXPECT_EQ(results[0].verdict, RuleVerdict::kFail);
  EXPECT_EQ(results[0].evidence, "it\\x1B[2J is gone");
  EXPECT_EQ(results[1].verdict, RuleVerdict::kSkip);
}

TEST(RuleNotes, HaveEachVerdict) {
  const auto rules = conformanceRules();
  for (const RuleVerdict verdict : {RuleVerdict::kPass, RuleVerdict::kWarn, RuleVerdict::kFail,
                                    RuleVerdict::kSkip, RuleVerdict::kUnknown}) {
    const RuleResult result = resultsFrom(noteOf({{rules[0], verdict, "seen"}})).front();
    EXPECT_EQ(result.verdict, verdict);
    EXPECT_EQ(result.evidence, "seen");
  }
}

TEST(RuleNotes, AreNotSoughtBehindMoreMembersThanAnyNoteHas) {
  std::string text = "{";
  for (int i = 0; i < 50000; ++i) text += "\"" + std::to_string(i) + "\":0,";
  const auto results = resultsFrom(text + R"("CR-01":[1,"x"]})");
  EXPECT_EQ(resultOf("CR-01", results).verdict, RuleVerdict::kSkip);
}

TEST(RuleNotes, AreNoneWhereTheyMakeNoSense) {
  const std::string rows[] = {"",
                              "[]",
                              "7",
                              std::string(100000, '['),
                              R"({"CR-01":7})",
                              R"({"CR-01":[0]})",
                              R"({"CR-01":["0","x"]})",
                              R"({"CR-01":[-1,"x"]})",
                              R"({"CR-01":[5,"x"]})",
                              R"({"CR-01":[1e99,"x"]})",
                              R"({"CR-01":[0,7]})",
                              R"({"CR-01":[0,[[7]]]})"};
  for (const std::string& row : rows) {
    SCOPED_TRACE(row.substr(0, 50));
    EXPECT_EQ(resultOf("CR-01", resultsFrom(row)).verdict, RuleVerdict::kSkip);
  }
}

}  // namespace
}  // namespace mirel::cli
