#include "ItemsJson.h"

#include <nlohmann/json.hpp>
#include <span>

#include "FindingText.h"
#include "Findings.h"
#include "Output.h"
#include "host/DistinctItems.h"
#include "host/KeyChoice.h"
#include "platform/CertificateFields.h"
#include "platform/Digest.h"
#include "platform/Hex.h"

namespace mirel::cli {
namespace {

using Json = nlohmann::ordered_json;

Json jsonOf(const Text& text) { return text.isNull() ? Json{} : Json(text.toUtf8()); }

Json jsonOf(const std::vector<Text>& texts) {
  Json list = Json::array();
  for (const Text& text : texts) list.push_back(jsonOf(text));
  return list;
}

std::string hexOf(Hash hash, std::span<const std::uint8_t> data) {
  return hexOfBytes(digestOf(hash, data), HexDigits::kLower);
}

/// SHA-1 of the public key in its certificate, null where that cannot be read: what the platform calls
/// kSecAttrPublicKeyHash, and `sc_auth identities` shows.
Json publicKeyHash(const PublishedCertificate& item) {
  const auto fields = fieldsOfCertificate(item.data.view());
  return fields ? Json(hexOf(Hash::kSHA1, fields->publicKeyBits)) : Json{};
}

Json jsonOf(const PublishedCertificate& item) {
  Json json{{"class", "certificate"},
            {"objectID", jsonOf(item.objectID)},
            {"label", jsonOf(item.label)},
            {"subject", jsonOf(item.subject)},
            {"notAfter", jsonOf(item.notAfter)},
            {"keyUsage", item.keyUsage},
            {"size", item.size},
            {"idHex", idText(item.label)},
            {"labelOnCard", jsonOf(labelOf(item))},
            {"sha256", hexOf(Hash::kSHA256, item.data.view())},
            {"publicKeyHash", publicKeyHash(item)}};
  const auto fields = fieldsOfCertificate(item.data.view());
  if (!fields) return json;
  json["issuer"] = jsonOf(fields->issuer);
  json["serialNumber"] = hexOfBytes(fields->serialNumber, HexDigits::kLower);
  json["notBefore"] = jsonOf(fields->notBefore);
  json["extendedKeyUsage"] = jsonOf(fields->extendedKeyUsage);
  json["subjectAltNames"] = jsonOf(fields->subjectAltNames);
  return json;
}

/// What they say in full stands among those of the card.
Json briefly(const std::vector<Finding>& findings) {
  Json list = Json::array();
  for (const Finding& finding : findings)
    list.push_back(Json{{"id", entryOf(finding.id).code}, {"severity", severityName(finding.severity)}});
  return list;
}

Json jsonOf(const PublishedKey& item, const KeyReport& report, const Json& hash) {
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
              {"constraints", constraints},
              {"idHex", idText(item.objectID)},
              {"labelOnCard", jsonOf(report.labelOnCard)},
              {"publicKeyHash", hash},
              {"works", report.works},
              {"findings", briefly(report.findings)}};
}

Json jsonOf(const UnpublishedObject& object) {
  return Json{{"kind", object.kind},
              {"idHex", idText(object.id)},
              {"labelOnCard", jsonOf(object.label)},
              {"code", entryOf(object.cause).code},
              {"reason", object.reason},
              {"blocksCard", object.blocksCard},
              {"unread", object.unread}};
}

Json itemsOf(const InsertedCard& card, const CardReport& report) {
  Json items = Json::array();
  Json hash;
  auto key = report.keys.begin();  // one for each that is not like one before
  for (const auto& [item, count] : distinctItems(card.items)) {
    if (const auto* certificate = std::get_if<PublishedCertificate>(item)) {
      items.push_back(jsonOf(*certificate));
      hash = items.back()["publicKeyHash"];  // its key comes next
    } else {
      items.push_back(jsonOf(std::get<PublishedKey>(*item), *key++, hash));
    }
    if (count > 1) items.back()["count"] = count;
  }
  return items;
}

}  // namespace

Json itemsJson(const InsertedCard& card, const CardReport& report) {
  Json unpublished = Json::array();
  for (const UnpublishedObject& object : report.unpublished) unpublished.push_back(jsonOf(object));
  Json json{{"reader", jsonOf(card.reader.name)},
            {"instanceID", jsonOf(card.instanceID)},
            {"instanceIDHex", hexOf(card.instanceID)},
            {"items", itemsOf(card, report)},
            {"notPublished", unpublished},
            {"findings", cli::jsonOf(std::span<const Finding>{report.findings})}};
  if (card.incomplete) json["incomplete"] = card.incomplete->why;
  return json;
}

const char* keyTypeName(CertificateKeyType type) noexcept {
  switch (type) {
    case CertificateKeyType::kRSA: return "RSA";
    case CertificateKeyType::kECPrimeRandom: return "EC";
    case CertificateKeyType::kOther: break;
  }
  return "other";
}

}  // namespace mirel::cli
