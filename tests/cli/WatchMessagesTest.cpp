#include "WatchMessages.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace mirel::cli {
namespace {

using Card = WatchedReader::Card;

TEST(WatchMessages, HoldWhatWasSent) {
  const std::vector<WatchedReader> slots{{Text::fromUtf8("A \xC3\xBF"), Card::kPresent, "1\n2"},
                                         {Text{}, Card::kUnknown},
                                         {Text::fromUtf8("B"), Card::kNone}};
  EXPECT_EQ(slotsIn(messageOf(slots)), slots);

  CardServiceView view{CardServiceView::State::kAnswers, {}, {{"Reader", ServiceReader::Card::kPresent}}, 2};
  const auto news = serviceIn(messageOf(view));
  ASSERT_TRUE(news);
  EXPECT_TRUE(news->answers);
  EXPECT_EQ(news->readers, watchedReaders(view));
  EXPECT_EQ(serviceIn(messageOf(CardServiceView{CardServiceView::State::kSilent, "why", {}}))->evidence,
            "why");

  const Failure failure{FailureKind::kModuleHangs, "what", "why", "advice"};
  EXPECT_EQ(failureIn(messageOf(failure)), toldFailure(failure));
  EXPECT_EQ(wordsOf(toldFailure(failure)), "what: why; advice");

  InsertedCard card;
  card.reader.tokenLabel = Text::fromUtf8("Label");
  card.reader.serialNumber = Text::fromUtf8("12");
  card.items.emplace_back(PublishedCertificate{});
  card.items.emplace_back(PublishedKey{});
  card.items.emplace_back(PublishedCertificate{});
  card.incomplete = failure;
  CardReport report;
  EXPECT_FALSE(cardIn(messageOf(card, report))->worst);
  report.findings = {{FindingID::kPinLocked, Severity::kFailure, "key", "seen"},
                     {FindingID::kCardEmpty, Severity::kWarning, "", ""}};
  const auto told = cardIn(messageOf(card, report));
  ASSERT_TRUE(told);
  EXPECT_EQ(told->tokenLabel, card.reader.tokenLabel);
  EXPECT_EQ(told->serialNumber, card.reader.serialNumber);
  EXPECT_EQ(told->numCertificates, 2U);
  EXPECT_EQ(told->numKeys, 1U);
  EXPECT_EQ(told->incomplete, toldFailure(failure));
  ASSERT_TRUE(told->worst);
  EXPECT_EQ(told->worst->id, FindingID::kPinLocked);
  EXPECT_EQ(told->worst->severity, Severity::kFailure);
  EXPECT_EQ(told->worst->subject, "key");
}

TEST(WatchMessages, AreNoneWhenTheyAreNotWhatIsSent) {
  const std::string card = messageOf(InsertedCard{}, CardReport{});
  std::vector<std::string> rows{"",
                                "{",
                                "[]",
                                "null",
                                "{}",
                                "\xFF",
                                R"({"slots":1})",
                                R"({"slots":[1]})",
                                R"({"slots":[{"card":1e300,"mark":""}]})",
                                R"({"slots":[{"card":1}]})",
                                R"({"slots":[{"card":1,"mark":"","name":7}]})",
                                R"({"service":{"answers":1,"evidence":"","readers":[]}})",
                                R"({"service":[]})",
                                R"({"failure":{"id":"x"}})",
                                R"({"failure":{"id":"x","exitCode":1.5,"what":"","why":"","advice":""}})",
                                std::string(100000, '['),
                                R"({"reader":{"serialNumber":7}})",
                                R"({"card":{}})"};
  for (const char* count : {"-1", "1e99", "\"2\"", "null"}) {
    std::string wrong = card;
    wrong.replace(wrong.find("\"keys\":0"), 8, "\"keys\":" + std::string{count});
    rows.push_back(wrong);
  }
  ASSERT_TRUE(cardIn(card));
  for (const std::string& row : rows) {
    SCOPED_TRACE(row.substr(0, 100));
    EXPECT_FALSE(slotsIn(row));
    EXPECT_FALSE(serviceIn(row));
    EXPECT_FALSE(failureIn(row));
    EXPECT_FALSE(cardIn(row));
    EXPECT_FALSE(serialNumberIn(row));
  }
}

TEST(WatchMessages, HoldTheSeverityOfAFindingThatThereIs) {
  const std::string code{entryOf(FindingID::kPinLocked).code};
  for (const Severity severity : {Severity::kFailure, Severity::kWarning, Severity::kUnknown}) {
    CardReport report;
    report.findings = {{FindingID::kPinLocked, severity, "key", "seen"}};
    std::string message = messageOf(InsertedCard{}, report);
    EXPECT_EQ(cardIn(message)->worst->severity, severity);
    message.replace(message.find(code), code.size(), "MT-X99");
    EXPECT_EQ(cardIn(message)->worst->severity, Severity::kUnknown);
  }
}

TEST(WatchMessages, HoldNoFindingThatThereIsNot) {
  CardReport report;
  report.findings = {{FindingID::kPinLocked, Severity::kFailure, "key", "seen"}};
  std::string message = messageOf(InsertedCard{}, report);
  const std::string code{entryOf(FindingID::kPinLocked).code};
  message.replace(message.find(code), code.size(), "MT-X99");
  message.replace(message.find("seen"), 4, "\\u001b[2J");
  const auto told = cardIn(message);
  ASSERT_TRUE(told && told->worst);
  EXPECT_EQ(told->worst->severity, Severity::kUnknown);
  EXPECT_THAT(told->worst->evidence, ::testing::Not(::testing::HasSubstr("\x1B")));
}

}  // namespace
}  // namespace mirel::cli
