#include "host/KeyChoice.h"

#include <algorithm>
#include <charconv>
#include <iterator>
#include <optional>

#include "NameList.h"
#include "bridge/CardRules.h"
#include "host/Display.h"
#include "host/DistinctItems.h"

namespace mirel {
namespace {

std::string quotedForDisplay(const std::string& text) {
  std::string quoted{"\""};
  return quoted.append(text).append("\"");
}

/// The label of the certificate on the card, from the object identifier of its item: "cert_<label>_<ID>".
Text certificateLabelOf(const PublishedKey& key) {
  constexpr std::u16string_view kPrefix = kCertificateNamePrefix;
  const std::u16string_view name = key.certificateID.units();
  const std::size_t around = kPrefix.size() + 1 + key.objectID.length();
  if (!name.starts_with(kPrefix) || name.size() < around) return {};
  return Text{name.substr(kPrefix.size(), name.size() - around)};
}

bool hasLabel(const PublishedKey& key, std::string_view name) {
  return displayed(key.label) == name || displayed(certificateLabelOf(key)) == name;
}

/// N - 1 for "#N" with an N from 1 to `count`.
std::optional<std::size_t> indexOf(std::string_view name, std::size_t count) {
  std::size_t number = 0;
  if (!name.starts_with('#')) return std::nullopt;
  const char* end = name.data() + name.size();
  const auto [rest, error] = std::from_chars(name.data() + 1, end, number);
  if (error != std::errc{} || rest != end || number == 0 || number > count) return std::nullopt;
  return number - 1;
}

std::string listOf(const std::vector<PublishedKey>& keys) {
  NameList list;
  for (std::size_t i = 0; i < keys.size() && list.takesMore(); ++i) {
    std::string text{"#"};
    text.append(std::to_string(i + 1)).append(" ");
    text.append(quotedForDisplay(shortened(displayed(keys[i].objectID))));
    const Text label = certificateLabelOf(keys[i]);
    if (!label.isEmpty()) text.append(" (").append(shortened(displayed(label))).append(")");
    list.add(text);
  }
  return list.textOf(keys.size());
}

Failure notFound(const std::string& why, const std::vector<PublishedKey>& keys, std::string_view name) {
  const std::string what = "there is no key " + quotedForDisplay(shortened(displayed(Text::fromUtf8(name))));
  if (keys.empty()) return {FailureKind::kKeyNotFound, what, "the card publishes no key", UserStep::kSeeKeys};
  std::string reason = why;
  if (!reason.empty()) reason.append("; ");
  return {FailureKind::kKeyNotFound, what, reason.append("the keys are ").append(listOf(keys)),
          "give one of these, or #N for the N-th"};
}

/// Numbers and labels may stand for another key when one is missing.
Failure uncertain(const Failure& incomplete, std::string_view name) {
  return {incomplete.kind,
          "which key is " + quotedForDisplay(shortened(displayed(Text::fromUtf8(name)))) + " cannot be told",
          incomplete.why + ", so a key may be missing", UserStep::kRetryOrGiveObjectID};
}

Result<ChosenKey> withCertificate(const InsertedCard& card, const PublishedKey& key) {
  for (const PublishedItem& item : card.items) {
    const auto* certificate = std::get_if<PublishedCertificate>(&item);
    if (certificate && certificate->objectID == key.certificateID) return ChosenKey{key, *certificate};
  }
  return Failure{FailureKind::kKeyNotFound,
                 "the key " + quotedForDisplay(shortened(displayed(key.objectID))) + " has no certificate",
                 "the system refused its certificate item", UserStep::kSeeKeys};
}

}  // namespace

std::vector<PublishedKey> keysOf(const InsertedCard& card) {
  std::vector<PublishedKey> keys;
  for (const auto& [item, count] : distinctItems(card.items)) {
    if (const auto* key = std::get_if<PublishedKey>(item)) keys.push_back(*key);
  }
  return keys;
}

Result<ChosenKey> chooseKey(const InsertedCard& card, std::string_view name) {
  const std::vector<PublishedKey> keys = keysOf(card);
  const auto isNamed = [&](const PublishedKey& key) { return displayed(key.objectID) == name; };
  if (const auto byID = std::find_if(keys.begin(), keys.end(), isNamed); byID != keys.end()) {
    return withCertificate(card, *byID);
  }
  if (card.incomplete) return uncertain(*card.incomplete, name);
  if (const auto index = indexOf(name, keys.size())) return withCertificate(card, keys[*index]);

  std::vector<PublishedKey> labelled;
  std::copy_if(keys.begin(), keys.end(), std::back_inserter(labelled),
               [&](const PublishedKey& key) { return hasLabel(key, name); });
  if (labelled.size() == 1) return withCertificate(card, labelled.front());
  return notFound(labelled.empty() ? "" : "several keys have that label", keys, name);
}

}  // namespace mirel
