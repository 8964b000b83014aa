#include "WatchMessages.h"

#include <algorithm>
#include <stdexcept>
#include <variant>

#include "ExitCode.h"
#include "Json.h"
#include "Wording.h"
#include "platform/Log.h"

namespace mirel::cli {
namespace {

std::string textOf(const Json& json) { return json.dump(-1, ' ', true, Json::error_handler_t::replace); }

/// What `take` makes of the message's member of that name; nothing where it is none, or not what it should
/// be.
template <typename Take>
auto taken(const std::string& message, const char* name, const Take& take)
    -> std::optional<decltype(take(Json{}))> {
  try {
    const Json json = Json::parse(message);
    if (!json.is_object() || !json.contains(name)) return std::nullopt;
    return take(json[name]);
  } catch (const std::exception&) {
    return std::nullopt;
  }
}

template <typename Number>
Number numberOf(const Json& json) {
  if (!json.is_number_unsigned()) throw std::invalid_argument{"it is no such number"};
  return json.get<Number>();
}

ToldFailure failureOf(const Json& json) {
  return {json.at("id"), numberOf<int>(json.at("exitCode")), json.at("what"), json.at("why"),
          json.at("advice")};
}

Json listOf(const std::vector<WatchedReader>& readers) {
  Json list = Json::array();
  for (const WatchedReader& reader : readers) {
    Json json{{"card", static_cast<int>(reader.card)}, {"mark", reader.mark}};
    if (!reader.name.isNull()) json["name"] = reader.name.toUtf8();
    list.push_back(json);
  }
  return list;
}

std::vector<WatchedReader> readersOf(const Json& list, bool isServices) {
  std::vector<WatchedReader> readers;
  for (const Json& json : list) {
    WatchedReader reader{Text{}, WatchedReader::Card::kUnknown, json.at("mark"), isServices};
    if (json.contains("name")) reader.name = Text::fromUtf8(json["name"].get<std::string>());
    const int card = numberOf<int>(json.at("card"));
    for (const auto known : {WatchedReader::Card::kNone, WatchedReader::Card::kPresent}) {
      if (static_cast<int>(known) == card) reader.card = known;
    }
    readers.push_back(reader);
  }
  return readers;
}

Finding findingOf(const Json& json) {
  const FindingEntry* entry = findEntry(json.at("code").get<std::string>());
  const int severity = numberOf<int>(json.at("severity"));
  return {entry ? entry->id : FindingID::kObjectUnread,
          entry && severity == static_cast<int>(Severity::kFailure)   ? Severity::kFailure
          : entry && severity == static_cast<int>(Severity::kWarning) ? Severity::kWarning
                                                                      : Severity::kUnknown,
          printableLine(json.at("subject").get<std::string>()),
          printableLine(json.at("evidence").get<std::string>())};
}

}  // namespace

ToldFailure toldFailure(const Failure& failure) {
  const ErrorTerms terms = errorTermsOf(failure.kind);
  return {std::string{terms.id}, static_cast<int>(terms.exitCode), failure.what, failure.why,
          std::string{wordsOf(failure.advice)}};
}

Json jsonOf(const ToldFailure& failure) {
  return {{"id", failure.id},
          {"exitCode", failure.exitCode},
          {"what", failure.what},
          {"why", failure.why},
          {"advice", failure.advice}};
}

ExitCode exitCodeOf(const ToldFailure& failure) {
  for (int kind = 0; kind <= static_cast<int>(FailureKind::kNotRecorded); ++kind) {
    const ErrorTerms terms = errorTermsOf(static_cast<FailureKind>(kind));
    if (terms.id == failure.id) return terms.exitCode;
  }
  return ExitCode::kInternal;
}

std::string messageOf(const Failure& failure) {
  return textOf(Json{{"failure", jsonOf(toldFailure(failure))}});
}

std::optional<ToldFailure> failureIn(const std::string& message) {
  return taken(message, "failure", failureOf);
}

std::string wordsOf(const ToldFailure& failure) {
  std::string words = failure.what;
  if (!failure.why.empty()) words += ": " + failure.why;
  if (!failure.advice.empty()) words += "; " + failure.advice;
  return words;
}

std::string messageOf(const CardServiceView& view) {
  return textOf(Json{{"service",
                      {{"answers", view.state == CardServiceView::State::kAnswers},
                       {"evidence", view.evidence},
                       {"readers", listOf(watchedReaders(view))}}}});
}

std::optional<ServiceNews> serviceIn(const std::string& message) {
  return taken(message, "service", [](const Json& json) {
    return ServiceNews{json.at("answers"), json.at("evidence"), readersOf(json.at("readers"), true)};
  });
}

std::string messageOf(const std::vector<WatchedReader>& slots) {
  return textOf(Json{{"slots", listOf(slots)}});
}

std::optional<std::vector<WatchedReader>> slotsIn(const std::string& message) {
  return taken(message, "slots", [](const Json& json) { return readersOf(json, false); });
}

std::string messageOf(const Reader& reader) {
  return textOf(Json{{"reader", {{"serialNumber", reader.serialNumber.toUtf8()}}}});
}

std::optional<Text> serialNumberIn(const std::string& message) {
  return taken(message, "reader",
               [](const Json& json) { return Text::fromUtf8(json.at("serialNumber").get<std::string>()); });
}

std::string messageOf(const InsertedCard& card, const CardReport& report) {
  const auto numKeys = std::count_if(card.items.begin(), card.items.end(), [](const PublishedItem& item) {
    return std::holds_alternative<PublishedKey>(item);
  });
  Json json{{"tokenLabel", card.reader.tokenLabel.toUtf8()},
            {"serialNumber", card.reader.serialNumber.toUtf8()},
            {"instanceID", card.instanceID.toUtf8()},
            {"keys", numKeys},
            {"certificates", static_cast<std::ptrdiff_t>(card.items.size()) - numKeys}};
  // The worst stands first.
  if (!report.findings.empty() && isWorse(report.findings.front().severity, Severity::kSkipped)) {
    const Finding& worst = report.findings.front();
    json["worst"] = {{"code", entryOf(worst.id).code},
                     {"severity", static_cast<int>(worst.severity)},
                     {"subject", worst.subject},
                     {"evidence", worst.evidence}};
  }
  if (card.incomplete) json["incomplete"] = jsonOf(toldFailure(*card.incomplete));
  return textOf(Json{{"card", json}});
}

std::optional<CardNews> cardIn(const std::string& message) {
  return taken(message, "card", [](const Json& json) {
    const auto text = [&](const char* name) { return Text::fromUtf8(json.at(name).get<std::string>()); };
    CardNews news{text("tokenLabel"),
                  text("serialNumber"),
                  text("instanceID"),
                  numberOf<std::size_t>(json.at("certificates")),
                  numberOf<std::size_t>(json.at("keys")),
                  std::nullopt,
                  std::nullopt};
    if (json.contains("worst")) news.worst = findingOf(json["worst"]);
    if (json.contains("incomplete")) news.incomplete = failureOf(json["incomplete"]);
    return news;
  });
}

}  // namespace mirel::cli
