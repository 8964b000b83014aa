#include "DoctorPage.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <vector>

namespace mirel::cli {
namespace {

using ::testing::HasSubstr;
using ::testing::Not;

constexpr const char* kHostile =
    "</style><script>alert('1')</script>\" onload=\"x\" &amp; \x01\xFF\xE2\x80\xAE";
constexpr const char* kHarmless =
    "&lt;/style&gt;&lt;script&gt;alert(&#39;1&#39;)&lt;/script&gt;&quot; onload=&quot;x&quot; &amp;amp; "
    "\\x01";

const PageFacts kFacts{"mireltoken 1.0\nOpenSSL 3\n", "2026-01-31T12:00:00Z"};

Check checkWith(Severity severity, Station station = Station::kModule) {
  return {"the check", severity, "the evidence", {}, {}, station};
}

/// The elements that are open at the end, or a word on what does not fit: no element of the page is left
/// open, as XML wants it.
std::vector<std::string> openElementsOf(std::string_view page) {
  std::vector<std::string> open;
  while (true) {
    const std::size_t start = page.find('<');
    if (start == std::string_view::npos) return open;
    const std::size_t end = page.find('>', start);
    if (end == std::string_view::npos) return {"a tag that does not end"};
    const std::string_view tag = page.substr(start + 1, end - start - 1);
    page.remove_prefix(end + 1);
    const std::string name{tag.substr(0, tag.find(' '))};
    if (std::count(tag.begin(), tag.end(), '"') % 2 != 0) return {"an attribute that does not end: " + name};
    if (tag.starts_with("/")) {
      if (open.empty() || "/" + open.back() != name) return {"an end of another element: " + name};
      open.pop_back();
    } else if (!tag.starts_with("!") && !tag.ends_with("/")) {
      open.push_back(name);
    }
  }
}

std::size_t countOf(std::string_view what, const std::string& page) {
  std::size_t count = 0;
  for (std::size_t at = page.find(what); at != std::string::npos; at = page.find(what, at + 1)) ++count;
  return count;
}

TEST(DoctorPage, EscapesWhateverComesFromTheCardOrTheModule) {
  Check check = checkWith(Severity::kFailure);
  check.evidence = check.reader = kHostile;
  check.findings.push_back({FindingID::kSignatureFails, Severity::kFailure, kHostile, kHostile});
  const std::string page = pageOf({{check}, {kHostile, kHostile}, {}}, {kHostile, kHostile, 0});
  EXPECT_EQ(countOf(kHarmless, page), 9U);
  EXPECT_THAT(page, Not(HasSubstr("<script")));
  EXPECT_EQ(countOf("</style", page), 1U);
  for (const char* byte : {"\x01", "\xFF", "\xE2\x80\xAE"}) EXPECT_THAT(page, Not(HasSubstr(byte)));
  EXPECT_EQ(openElementsOf(page), std::vector<std::string>{});
}

TEST(DoctorPage, TellsEachSeverityByASignAndAWordToo) {
  const struct {
    Severity severity;
    const char* mark;
    const char* stop;
  } rows[] = {
      {Severity::kOk, "\u2713 ok", "works"},
      {Severity::kSkipped, "\u2013 skipped", "not looked at"},
      {Severity::kUnknown, "? unknown", "not known"},
      {Severity::kWarning, "! warning", "warning"},
      {Severity::kFailure, "\u2715 failure", "does not work"},
  };
  for (const auto& [severity, mark, stop] : rows) {
    SCOPED_TRACE(mark);
    const std::string page = pageOf({{checkWith(severity, Station::kKeys)}}, kFacts);
    EXPECT_THAT(page, HasSubstr(std::string{"\">"} + mark + "</span></td><td class=\"name\">the check</td>"));
    EXPECT_THAT(page, HasSubstr(std::string{"class=\"word\">"} + stop + "</text>"));
    EXPECT_THAT(page, HasSubstr(std::string{"keys: "} + stop + ", keychain: "));
    EXPECT_EQ(openElementsOf(page), std::vector<std::string>{});
  }
}

TEST(DoctorPage, ShowsTheWorstOfAStationAndWhereTheWayIsBroken) {
  const std::string page =
      pageOf({{checkWith(Severity::kOk), checkWith(Severity::kSkipped),
               checkWith(Severity::kWarning, Station::kCard), checkWith(Severity::kFailure, Station::kCard),
               checkWith(Severity::kFailure, Station::kObjects)}},
             kFacts);
  EXPECT_THAT(page, HasSubstr("aria-label=\"module: works, readers: not looked at, card: does not work, "
                              "objects: does not work, keys: not looked at, keychain: gets nothing\""));
  EXPECT_THAT(page, HasSubstr("broken at: <strong>card</strong>"));
}

TEST(DoctorPage, TellsWhatWasFoundWithReasonAndRemedy) {
  Check check = checkWith(Severity::kWarning);
  check.findings.push_back({FindingID::kNoReader, Severity::kWarning, "", "none is there"});
  const std::string page = pageOf({{check}, {"/module.so", "x86-64"}, {}}, {kFacts.versions, kFacts.date, 2});
  for (const char* text :
       {"MT-R01 no reader is connected</h3>", "<dt>Seen</dt><dd>none is there</dd>", "<dt>What to do</dt>",
        "<dt>Who</dt><dd>you</dd>", "<td class=\"codes\">MT-R01</td>", "keychain: 2 items",
        "<dd>mireltoken 1.0; OpenSSL 3</dd>", "<dd>/module.so</dd>", "<dd>2026-01-31T12:00:00Z</dd>"}) {
    EXPECT_THAT(page, HasSubstr(text));
  }
  EXPECT_THAT(page, Not(HasSubstr("broken at")));
}

TEST(DoctorPage, OfNoChecksSaysSo) {
  const std::string page = pageOf({}, {});
  EXPECT_THAT(page, HasSubstr("No check was made."));
  EXPECT_EQ(openElementsOf(page), std::vector<std::string>{});
}

TEST(DoctorPage, TakesNothingFromElsewhere) {
  const std::string page = pageOf({{checkWith(Severity::kOk)}}, kFacts);
  for (const char* word : {"src=", "href", "url(", "@import", "<script", "<link", "<iframe"})
    EXPECT_THAT(page, Not(HasSubstr(word)));
  EXPECT_THAT(page, HasSubstr("default-src 'none'"));
  EXPECT_THAT(page, HasSubstr("@media print"));
  EXPECT_THAT(page, HasSubstr("@media (prefers-color-scheme: dark)"));
}

}  // namespace
}  // namespace mirel::cli
