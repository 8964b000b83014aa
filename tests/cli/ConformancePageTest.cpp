#include "ConformancePage.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "PageTest.h"

namespace mirel::cli {
namespace {

using ::testing::HasSubstr;
using ::testing::Not;

const ConformanceRule kRule{"CR-01", "module", "the title"};
constexpr Grade kGrade{"B", "TLS 1.3 login"};

TEST(ConformancePage, EscapesWhateverComesFromTheCardOrTheModule) {
  const std::string page = pageOf({{{kRule, RuleVerdict::kFail, kHostile}}, kGrade}, kHostile, kHostile);
  EXPECT_EQ(countOf(kHarmless, page), 4U);
  EXPECT_THAT(page, Not(HasSubstr("<script")));
  EXPECT_EQ(openElementsOf(page), std::vector<std::string>{});
}

TEST(ConformancePage, TellsGradeCountsAndEachRuleByItsGroup) {
  const std::string page = pageOf({{{kRule, RuleVerdict::kPass, "seen"},
                                    {{"CR-02", "module", "another"}, RuleVerdict::kUnknown, "it failed"},
                                    {{"CR-03", "token", "a third"}, RuleVerdict::kWarn, "so and so"}},
                                   kGrade},
                                  "mireltoken 1.0\nOpenSSL 3\n", "2026-01-31T12:00:00Z");
  for (const char* text :
       {"<h2>Grade B</h2>\n<p>TLS 1.3 login.</p>", "3 rules: 1 pass, 0 fail, 1 warn, 1 not known, 0 skipped",
        "\u2713 pass</span></td><td class=\"name\">CR-01</td><td>the title</td><td>seen</td>",
        "? not known</span></td><td class=\"name\">CR-02</td>", "! warn</span>",
        "! No rule is broken that a card must keep.", "<dd>mireltoken 1.0; OpenSSL 3</dd>",
        "<dd>2026-01-31T12:00:00Z</dd>"}) {
    EXPECT_THAT(page, HasSubstr(text));
  }
  EXPECT_EQ(countOf("<th colspan", page), 2U);
  EXPECT_EQ(openElementsOf(page), std::vector<std::string>{});
}

TEST(ConformancePage, TakesNothingFromElsewhere) {
  const std::string page = pageOf({{{kRule, RuleVerdict::kPass, "seen"}}, kGrade}, "", "");
  for (const char* word : {"src=", "href", "url(", "@import", "<script", "<link"})
    EXPECT_THAT(page, Not(HasSubstr(word)));
  EXPECT_THAT(page, HasSubstr("default-src 'none'"));
}

}  // namespace
}  // namespace mirel::cli
