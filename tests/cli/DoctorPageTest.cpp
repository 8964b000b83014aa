#include "DoctorPage.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <sstream>

#include "PageTest.h"

namespace mirel::cli {
namespace {

using ::testing::HasSubstr;
using ::testing::Not;

const PageFacts kFacts{"mireltoken 1.0\nOpenSSL 3\n", "2026-01-31T12:00:00Z"};

Check checkWith(Severity severity, Station station = Station::kModule) {
  return {"the check", severity, "the evidence", {}, {}, station};
}

/// The values of an attribute, in their order.
std::vector<std::size_t> numbersAt(const std::string& attribute, const std::string& picture) {
  std::vector<std::size_t> numbers;
  const std::string start = " " + attribute + "=\"";
  for (std::size_t at = picture.find(start); at != std::string::npos; at = picture.find(start, at + 1))
    numbers.push_back(std::stoull(picture.substr(at + start.size())));
  return numbers;
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

TEST(DoctorPage, DrawsARoadFromStopToStopWithinEachPicture) {
  const std::string page = pageOf({{checkWith(Severity::kOk)}}, kFacts);
  const std::pair<std::string, std::string> rows[] = {{"wide", "x"}, {"tall", "y"}};
  for (const auto& [name, along] : rows) {
    SCOPED_TRACE(name);
    std::string picture = page.substr(page.find("<svg class=\"" + name));
    picture.resize(picture.find("</svg>"));
    std::vector<std::size_t> stops = numbersAt("c" + along, picture);
    ASSERT_EQ(stops.size(), 6U);
    EXPECT_EQ(std::adjacent_find(stops.begin(), stops.end(), std::greater_equal<>{}), stops.end());
    std::istringstream box{picture.substr(picture.find("viewBox=\"0 0 ") + 13)};
    std::size_t width = 0;
    std::size_t height = 0;
    box >> width >> height;
    EXPECT_LT(stops.back(), along == "x" ? width : height);
    EXPECT_EQ(numbersAt(along + "2", picture), (std::vector<std::size_t>{stops.begin() + 1, stops.end()}));
    stops.pop_back();
    EXPECT_EQ(numbersAt(along + "1", picture), stops);
  }
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
