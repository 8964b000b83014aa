
#include "Commands.h"
#include "Json.h"
#include "Output.h"
#include "Session.h"
#include "host/DistinctItems.h"
#include "host/KeyChoice.h"

namespace mirel::cli {
namespace {

const char* keyTypeName(CertificateKeyType type) noexcept {
  switch (type) {
    case CertificateKeyType::kRSA: return "RSA";
    case CertificateKeyType::kECPrimeRandom: return "EC";
    case CertificateKeyType::kOther: break;
  }
  return "other";
}

const char* operationName(KeyOperation operation) noexcept {
  switch (operation) {
    case KeyOperation::kSign: return "sign";
    case KeyOperation::kDecrypt: return "decrypt";
    case KeyOperation::kExchangeKeys: return "key exchange";
  }
  return "use";
}

Json jsonOf(const Text& text) { return text.isNull() ? Json{} : Json(text.toUtf8()); }

Json jsonOf(const PublishedCertificate& item) {
  return Json{{"class", "certificate"},
              {"objectID", jsonOf(item.objectID)},
              {"label", jsonOf(item.label)},
              {"subject", jsonOf(item.subject)},
              {"notAfter", jsonOf(item.notAfter)},
              {"keyUsage", item.keyUsage},
              {"size", item.size}};
}

Json jsonOf(const PublishedKey& item) {
  Json constraints = Json::object();
  for (const auto& [operation, constraint] : item.constraints) {
    constraints[std::to_string(static_cast<std::int64_t>(operation))] = jsonOf(constraint);
  }
  return Json{{"class", "key"},
              {"objectID", jsonOf(item.objectID)},
              {"label", jsonOf(item.label)},
              {"certificateID", jsonOf(item.certificateID)},
              {"keyType", keyTypeName(item.keyType)},
              {"keySizeInBits", item.keySizeInBits},
              {"canSign", item.canSign},
              {"canDecrypt", item.canDecrypt},
              {"canPerformKeyExchange", item.canPerformKeyExchange},
              {"suitableForLogin", item.suitableForLogin},
              {"alwaysAuthenticate", item.alwaysAuthenticate},
              {"constraints", constraints}};
}

std::string jsonText(const InsertedCard& card) {
  Json items = Json::array();
  for (const auto& [item, count] : distinctItems(card.items)) {
    Json one = std::visit([](const auto& published) { return jsonOf(published); }, *item);
    if (count > 1) one["count"] = count;
    items.push_back(std::move(one));
  }
  Json json{{"reader", jsonOf(card.reader.name)},
            {"instanceID", jsonOf(card.instanceID)},
            {"instanceIDHex", hexOf(card.instanceID)},
            {"items", items}};
  if (card.incomplete) json["incomplete"] = card.incomplete->why;
  return jsonLines("items", json);
}

std::vector<std::string> rowOf(const PublishedCertificate& item) {
  const std::string usage = item.keyUsage.empty() ? "no key usage" : joinedWith(" ", item.keyUsage);
  const std::string validity = item.notAfter.isNull() ? "" : ", until " + displayed(item.notAfter);
  return {
      "certificate", idText(item.label), displayed(labelOf(item)),
      displayedName(item.subject) + validity + ", " + usage + ", " + std::to_string(item.size) + " bytes"};
}

std::vector<std::string> rowOf(const PublishedKey& item) {
  std::vector<std::string> abilities;
  if (item.canSign) abilities.emplace_back("signs");
  if (item.canDecrypt) abilities.emplace_back("decrypts");
  if (item.canPerformKeyExchange) abilities.emplace_back("exchanges keys");
  if (item.suitableForLogin) abilities.emplace_back("for login");
  if (abilities.empty()) abilities.emplace_back("no use allowed");
  for (const auto& [operation, constraint] : item.constraints) {
    abilities.push_back(displayed(constraint) + " to " + operationName(operation));
  }
  return {"key", idText(item.objectID), displayed(labelOf(item)),
          std::string{keyTypeName(item.keyType)} + " " + std::to_string(item.keySizeInBits) + ", " +
              joinedWith(", ", abilities)};
}

std::string tableText(const InsertedCard& card) {
  std::string text = "Reader       " + displayed(card.reader.name) + "\n";
  text += "Card         " + displayed(card.reader.tokenLabel) + ", serial number " +
          displayed(card.reader.serialNumber) + "\n";
  text += "Instance ID  \"" + displayed(card.instanceID) + "\"\n\n";

  if (card.items.empty()) return text + "The card publishes nothing.\n";
  std::vector<std::vector<std::string>> rows{{"ITEM", "ID", "LABEL", "WHAT IT IS"}};
  for (const auto& [item, count] : distinctItems(card.items)) {
    rows.push_back(std::visit([](const auto& published) { return rowOf(published); }, *item));
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
std::string unpublishedText(const Unpublished& unpublished) {
  std::string text = objectsText("NOT PUBLISHED", unpublished.objects, false) +
                     objectsText("NOT READ NOW", unpublished.objects, true);
  if (!unpublished.failedRead.empty()) {
    text.append("\nThe card could not be read again as a whole (")
        .append(unpublished.failedRead)
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
  if (session.options().json) return writeOutput(jsonText(card));

  std::string text = tableText(card);
  text.append(unpublishedText(session.unpublishedObjects()));
  if (session.options().verbose) text.append(identifiersText(card));
  return writeOutput(text);
}

}  // namespace

const Command itemsCommand{"items", "Insert a card and list the keychain items it would publish", {}, run};

}  // namespace mirel::cli
