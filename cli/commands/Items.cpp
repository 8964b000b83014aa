#include "Commands.h"
#include "Findings.h"
#include "ItemsJson.h"
#include "Json.h"
#include "Output.h"
#include "Session.h"
#include "host/DistinctItems.h"
#include "host/KeyChoice.h"

namespace mirel::cli {
namespace {

const char* operationName(KeyOperation operation) noexcept {
  switch (operation) {
    case KeyOperation::kSign: return "sign";
    case KeyOperation::kDecrypt: return "decrypt";
    case KeyOperation::kExchangeKeys: return "key exchange";
  }
  return "use";
}

std::vector<std::string> rowOf(const PublishedCertificate& item) {
  const std::string usage = item.keyUsage.empty() ? "no key usage" : joinedWith(" ", item.keyUsage);
  const std::string validity = item.notAfter.isNull() ? "" : ", until " + displayed(item.notAfter);
  return {
      "certificate", idText(item.label), displayed(labelOf(item)),
      displayedName(item.subject) + validity + ", " + usage + ", " + std::to_string(item.size) + " bytes"};
}

std::vector<std::string> rowOf(const PublishedKey& item, const std::string& works) {
  std::vector<std::string> abilities;
  if (item.suitableForLogin) abilities.emplace_back("for login");
  for (const auto& [operation, constraint] : item.constraints) {
    abilities.push_back(displayed(constraint) + " to " + operationName(operation));
  }
  abilities.push_back(works);
  return {"key", idText(item.objectID), displayed(labelOf(item)),
          std::string{keyTypeName(item.keyType)} + " " + std::to_string(item.keySizeInBits) + ", " +
              joinedWith(", ", abilities)};
}

std::string tableText(const InsertedCard& card, const CardReport& report) {
  std::string text = "Reader       " + displayed(card.reader.name) + "\n";
  text += "Card         " + displayed(card.reader.tokenLabel) + ", serial number " +
          displayed(card.reader.serialNumber) + "\n";
  text += "Instance ID  \"" + displayed(card.instanceID) + "\"\n\n";

  if (card.items.empty()) return text + "The card publishes nothing.\n";
  std::vector<std::vector<std::string>> rows{{"ITEM", "ID", "LABEL", "WHAT IT IS"}};
  auto key = report.keys.begin();  // one for each that is not like one before
  for (const auto& [item, count] : distinctItems(card.items)) {
    if (const auto* certificate = std::get_if<PublishedCertificate>(item)) {
      rows.push_back(rowOf(*certificate));
    } else {
      rows.push_back(
          rowOf(std::get<PublishedKey>(*item), key == report.keys.end() ? std::string{} : (key++)->works));
    }
    if (count > 1) rows.back().back().append(", ").append(std::to_string(count)).append(" times");
  }
  return text + table(rows, outputIsColoured());
}

/// Those objects that could not be read now, or all others; empty when there are none.
std::string objectsText(const char* heading, const std::vector<UnpublishedObject>& objects, bool unread) {
  std::vector<std::vector<std::string>> rows{{heading, "LABEL", "ID", "WHY"}};
  for (const UnpublishedObject& object : objects) {
    if (object.unread == unread)
      rows.push_back({object.kind, displayed(object.label), idText(object.id), object.reason});
  }
  return rows.size() == 1 ? std::string{} : "\n" + table(rows, outputIsColoured());
}

/// Empty when everything on the card is published.
std::string unpublishedText(const CardReport& report) {
  std::string text = objectsText("NOT PUBLISHED", report.unpublished, false) +
                     objectsText("NOT READ NOW", report.unpublished, true);
  if (!report.failedRead.empty()) {
    text.append("\nThe card could not be read again as a whole (")
        .append(report.failedRead)
        .append("): more may be left out than is told here. Run again to see it.\n");
  }
  return text;
}

/// What the keychain knows the items by: every byte of the card is one character of these texts.
std::string identifiersText(const InsertedCard& card) {
  std::vector<std::vector<std::string>> rows{{"KEYCHAIN", "IDENTIFIER"}};
  rows.push_back({"token", '"' + displayedAsLatin1(card.instanceID) + '"'});
  for (const auto& [item, count] : distinctItems(card.items)) {
    const char* kind = std::holds_alternative<PublishedKey>(*item) ? "key" : "certificate";
    const Text& id = std::visit([](const auto& one) -> const Text& { return one.objectID; }, *item);
    rows.push_back({kind, displayedAsLatin1(id)});
  }
  return "\n" + table(rows, outputIsColoured());
}

Result<void> run(Session& session) {
  if (auto inserted = session.insertCard(); !inserted) return inserted;
  const InsertedCard& card = session.card();
  if (card.incomplete) writeMessage(failureLine(*card.incomplete));
  const CardReport report = session.examine();
  if (session.options().json) return writeOutput(jsonLines("items", itemsJson(card, report)));

  std::string text = tableText(card, report);
  text.append(unpublishedText(report));
  if (const std::string findings = findingsTable(report.findings); !findings.empty())
    text.append("\n").append(findings);
  if (session.options().verbose > 0) text.append(identifiersText(card));
  return writeOutput(text);
}

}  // namespace

const Command itemsCommand{"items", "Insert a card and list the keychain items it would publish", {}, run};

}  // namespace mirel::cli
