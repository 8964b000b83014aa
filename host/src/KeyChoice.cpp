#include "host/KeyChoice.h"

#include <algorithm>
#include <charconv>
#include <functional>
#include <optional>

#include "NameList.h"
#include "bridge/CardRules.h"
#include "host/Display.h"
#include "host/DistinctItems.h"
#include "host/NearestName.h"
#include "host/Pkcs11Uri.h"
#include "platform/Hex.h"

namespace mirel {
namespace {

using Keys = std::vector<PublishedKey>;
using Indices = std::vector<std::size_t>;

std::string quotedForDisplay(std::string_view name) {
  std::string text{"\""};
  return text.append(shortened(displayed(name))).append("\"");
}

std::string shownID(const PublishedKey& key) { return shortened(idText(key.objectID), kMostHexDigits); }

/// The label in the identifier of a certificate's item: "cert_<label>_<ID>".
Text labelIn(const Text& certificateID, const Text& id) {
  constexpr std::u16string_view kPrefix = kCertificateNamePrefix;
  const std::u16string_view name = certificateID.units();
  const std::size_t around = kPrefix.size() + 1 + id.length();
  if (!name.starts_with(kPrefix) || name.size() < around) return {};
  return Text{name.substr(kPrefix.size(), name.size() - around)};
}

/// The ID that pairs of hexadecimal digits stand for: after "0x" or not, with a colon between all pairs or
/// none. Nothing for another text.
std::optional<Text> idOfHex(std::string_view name) {
  if (name.starts_with("0x") || name.starts_with("0X")) name.remove_prefix(2);
  const std::size_t step = name.size() > 2 && name[2] == ':' ? 3 : 2;
  if ((name.size() + step - 2) % step != 0 || name.empty()) return std::nullopt;
  std::u16string id;
  for (std::size_t i = 0; i < name.size(); i += step) {
    const auto high = valueOfHexDigit(name[i]);
    const auto low = valueOfHexDigit(name[i + 1]);
    const bool isLast = i + 2 == name.size();
    if (!high || !low || (step == 3 && !isLast && name[i + 2] != ':')) return std::nullopt;
    id.push_back(static_cast<char16_t>(*high << 4U | *low));
  }
  return Text{id};
}

/// The label of the item itself. The token gives it the key's ID, which is none.
Text ownLabelOf(const PublishedKey& key) { return key.label == key.objectID ? Text{} : key.label; }

bool hasLabel(const PublishedKey& key, std::string_view name, std::string (*shown)(const Text&)) {
  if (name.empty()) return false;
  return shown(ownLabelOf(key)) == name || shown(labelOf(key)) == name;
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

template <typename Predicate>
Indices keysWith(const Keys& keys, const Predicate& fits) {
  Indices found;
  for (std::size_t i = 0; i < keys.size(); ++i) {
    if (fits(keys[i])) found.push_back(i);
  }
  return found;
}

/// The first of them: the keychain finds no other with its ID.
Indices firstWithID(const Keys& keys, const std::function<bool(const Text& id)>& fits) {
  Indices found = keysWith(keys, [&](const PublishedKey& key) { return fits(key.objectID); });
  if (found.size() > 1) found.erase(found.begin() + 1, found.end());
  return found;
}

bool isText(const Text& ofCard, const std::optional<std::string>& wanted) {
  if (!wanted) return true;
  const std::string_view bytes{*wanted};
  return std::equal(bytes.begin(), bytes.end(), ofCard.units().begin(), ofCard.units().end(),
                    [](char byte, char16_t unit) { return static_cast<unsigned char>(byte) == unit; });
}

/// What of the card is not as the URI wants it; empty when all is.
std::string differenceOf(const Pkcs11Uri& uri, const Reader& reader) {
  const struct {
    const char* name;
    const std::optional<std::string>& wanted;
    const Text& there;
  } texts[] = {{"token", uri.token, reader.tokenLabel},
               {"serial", uri.serial, reader.serialNumber},
               {"manufacturer", uri.manufacturer, reader.manufacturer},
               {"model", uri.model, reader.model},
               {"slot-description", uri.slotDescription, reader.name}};
  for (const auto& [name, wanted, there] : texts) {
    if (!isText(there, wanted)) {
      return std::string{"its "} + name + " is " + quotedForDisplay(*wanted) + ", the card's is \"" +
             shortened(displayed(there)) + "\"";
    }
  }
  if (uri.slotID && *uri.slotID != reader.slotID) {
    return "its slot-id is " + std::to_string(*uri.slotID) + ", the card's is " +
           std::to_string(reader.slotID);
  }
  return {};
}

/// A key that is published has a public and a private half and a certificate.
bool fits(const Pkcs11Uri& uri, const PublishedKey& key) {
  if (uri.type == Pkcs11Uri::Type::kSecretKey || uri.type == Pkcs11Uri::Type::kData) return false;
  const bool isNamed = isText(labelOf(key), uri.object) || isText(ownLabelOf(key), uri.object);
  return isText(key.objectID, uri.id) && isNamed;
}

std::string listOf(const Keys& keys, const Indices& listed) {
  NameList list;
  for (std::size_t i = 0; i < listed.size() && list.takesMore(); ++i) {
    const PublishedKey& key = keys[listed[i]];
    std::string text{"#"};
    text.append(std::to_string(listed[i] + 1)).append(" ").append(shownID(key));
    const Text label = labelOf(key);
    if (!label.isEmpty()) text.append(" (").append(shortened(displayed(label))).append(")");
    list.add(text);
  }
  return list.textOf(listed.size());
}

Failure notFound(const Keys& keys, std::string_view name, const std::string& why) {
  const std::string what = "there is no key " + quotedForDisplay(name);
  if (keys.empty()) return {FailureKind::kKeyNotFound, what, "the card publishes no key", UserStep::kSeeKeys};
  std::vector<std::string> names;
  for (const PublishedKey& key : keys) {
    for (const std::string& known :
         {idText(key.objectID), displayed(labelOf(key)), displayed(ownLabelOf(key))})
      names.push_back(known);
  }
  const Indices all = keysWith(keys, [](const PublishedKey&) { return true; });
  std::string reason = why;
  if (!reason.empty()) reason.append("; ");
  return {FailureKind::kKeyNotFound, what + suggestionFor(name, names),
          reason.append("the keys are ").append(listOf(keys, all)), "give one of these, or #N for the N-th"};
}

Failure severalFit(const Keys& keys, std::string_view name, const Indices& found, const char* why) {
  return {FailureKind::kKeyNotFound, "which key is " + quotedForDisplay(name) + " cannot be told",
          std::string{why} + ": " + listOf(keys, found),
          "give the ID of one that only it has, or #N for the N-th"};
}

/// Numbers and labels may stand for another key when one is missing.
Failure uncertain(const Failure& incomplete, std::string_view name) {
  return {incomplete.kind, "which key is " + quotedForDisplay(name) + " cannot be told",
          incomplete.why + ", so a key may be missing", UserStep::kRetryOrGiveObjectID};
}

Result<ChosenKey> withCertificate(const InsertedCard& card, const PublishedKey& key) {
  if (const auto* certificate = certificateOf(card, key)) return ChosenKey{key, *certificate};
  return Failure{FailureKind::kKeyNotFound, "the key " + shownID(key) + " has no certificate",
                 "the system refused its certificate item", UserStep::kSeeKeys};
}

/// The keys that the URI fits, those with one ID as one.
Indices fittingKeys(const Keys& keys, const Pkcs11Uri& uri) {
  Indices found = keysWith(keys, [&](const PublishedKey& key) { return fits(uri, key); });
  if (uri.id && found.size() > 1) found.erase(found.begin() + 1, found.end());
  return found;
}

Result<ChosenKey> chooseByUri(const InsertedCard& card, const Keys& keys, std::string_view name) {
  const auto uri = parsePkcs11Uri(name);
  if (!uri) return uri.failure();
  if (card.incomplete && !uri->id) return uncertain(*card.incomplete, name);
  const std::string difference = differenceOf(*uri, card.reader);
  const Indices found = difference.empty() ? fittingKeys(keys, *uri) : Indices{};
  if (found.size() == 1) return withCertificate(card, keys[found.front()]);
  if (found.size() > 1) return severalFit(keys, name, found, "the URI fits several keys");
  if (card.incomplete && difference.empty()) return uncertain(*card.incomplete, name);
  return notFound(keys, name, difference);
}

/// What programs that take each byte for a character call the key.
Indices keysByCharacters(const Keys& keys, std::string_view name) {
  Indices byID = firstWithID(keys, [&](const Text& id) { return displayedAsLatin1(id) == name; });
  if (!byID.empty()) return byID;
  return keysWith(keys, [&](const PublishedKey& key) { return hasLabel(key, name, &displayedAsLatin1); });
}

}  // namespace

Text labelOf(const PublishedKey& key) { return labelIn(key.certificateID, key.objectID); }

/// The token gives the item the ID for its label.
Text labelOf(const PublishedCertificate& certificate) {
  return labelIn(certificate.objectID, certificate.label);
}

std::vector<PublishedKey> keysOf(const InsertedCard& card) {
  std::vector<PublishedKey> keys;
  for (const auto& [item, count] : distinctItems(card.items)) {
    if (const auto* key = std::get_if<PublishedKey>(item)) keys.push_back(*key);
  }
  return keys;
}

const PublishedCertificate* certificateOf(const InsertedCard& card, const PublishedKey& key) {
  for (const PublishedItem& item : card.items) {
    const auto* certificate = std::get_if<PublishedCertificate>(&item);
    if (certificate && certificate->objectID == key.certificateID) return certificate;
  }
  return nullptr;
}

Result<ChosenKey> chooseKey(const InsertedCard& card, std::string_view name) {
  const Keys keys = keysOf(card);
  const auto chosen = [&](const Indices& found) { return withCertificate(card, keys[found.front()]); };
  const auto asItIsShown = static_cast<std::string (*)(const Text&)>(&displayed);

  const auto id = idOfHex(name);
  Indices byID = firstWithID(keys, [&](const Text& known) { return id && known == *id; });
  const Indices labelled =
      keysWith(keys, [&](const PublishedKey& key) { return hasLabel(key, name, asItIsShown); });
  if (!byID.empty()) {
    for (const std::size_t other : labelled) {
      if (keys[other].objectID != keys[byID.front()].objectID) byID.push_back(other);
    }
    if (byID.size() == 1) return chosen(byID);
    return severalFit(keys, name, byID, "it is the ID of one key and the label of another");
  }
  if (card.incomplete) {
    const Indices raw =
        firstWithID(keys, [&](const Text& known) { return displayedAsLatin1(known) == name; });
    if (!raw.empty()) return chosen(raw);
    return isPkcs11Uri(name) ? chooseByUri(card, keys, name) : uncertain(*card.incomplete, name);
  }
  if (labelled.size() == 1) return chosen(labelled);
  if (labelled.size() > 1) return severalFit(keys, name, labelled, "several keys have that label");
  if (isPkcs11Uri(name)) return chooseByUri(card, keys, name);
  if (const auto index = indexOf(name, keys.size())) return withCertificate(card, keys[*index]);

  const Indices byCharacters = keysByCharacters(keys, name);
  if (byCharacters.size() == 1) return chosen(byCharacters);
  if (byCharacters.size() > 1) return severalFit(keys, name, byCharacters, "several keys have that label");
  return notFound(keys, name, {});
}

Result<void> checkKeyName(std::string_view name) {
  if (!isPkcs11Uri(name)) return {};
  const auto uri = parsePkcs11Uri(name);
  if (!uri) return uri.failure();
  return {};
}

}  // namespace mirel
