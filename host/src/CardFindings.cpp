#include "CardFindings.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <ctime>
#include <deque>
#include <map>
#include <set>
#include <utility>

#include "CardInspector.h"
#include "KeyValue.h"
#include "NameList.h"
#include "TokenFindings.h"
#include "bridge/CardRules.h"
#include "host/Display.h"
#include "host/KeyAbility.h"
#include "platform/CertificateFields.h"

namespace mirel {
namespace {

using enum FindingID;
using enum Severity;

/// Whether it is about one object or key of several, so that the rest of the card may work.
bool isOfOneObject(FindingID id) noexcept {
  switch (id) {
    case kCardChanged:
    case kObjectLeftOut:
    case kCertificateUnusable:
    case kPublicKeyMissing:
    case kPublicKeyPrivate:
    case kCertificateMissing:
    case kCertificatePrivate:
    case kPrivateKeyMissing:
    case kCertificateOfOtherKey:
    case kKeyUsageMissing:
    case kRsaKeyTooLong:
    case kEcKeyNeverSigns:
    case kKeyNameWithPss:
    case kNoKeyAgreement:
    case kKeyIDTooLong:
    case kUseNotAllowed: return true;
    default: return false;
  }
}

/// UTC, in the form of CertificateFields.
std::string timeText(std::chrono::system_clock::time_point time) {
  const std::time_t seconds = std::chrono::system_clock::to_time_t(time);
  std::tm utc{};
  if (!gmtime_r(&seconds, &utc)) return {};
  std::array<char, 80> line{};  // room for six numbers of any value
  (void)std::snprintf(line.data(), line.size(), "%04d-%02d-%02dT%02d:%02d:%02dZ", utc.tm_year + 1900,
                      utc.tm_mon + 1, utc.tm_mday, utc.tm_hour, utc.tm_min, utc.tm_sec);
  return line.data();
}

std::string countText(std::size_t count, const std::string& noun) {
  return std::to_string(count) + " " + noun + (count == 1 ? "" : "s");
}

// ---- Objects with one ID ----

/// The labels of the objects of each ID; an object that the module gives twice counts once. One that is no
/// certificate has no item in the keychain, so it shares its ID with none there.
std::map<std::u16string, std::vector<Text>> labelsByID(const std::vector<CardObject>& objects) {
  std::map<std::u16string, std::vector<Text>> labels;
  std::set<CK_OBJECT_HANDLE> seen;
  for (const CardObject& object : objects) {
    if (object.listed && object.readable && seen.insert(object.handle).second)
      labels[std::u16string{object.about.id.units()}].push_back(object.about.label);
  }
  return labels;
}

/// "2 certificates (\"A\", \"B\")".
std::string groupText(const std::vector<Text>& labels, const char* noun) {
  NameList list;
  for (const Text& label : labels) {
    if (list.takesMore()) list.add(std::string{"\""}.append(shortened(displayed(label))).append("\""));
  }
  return countText(labels.size(), noun) + " (" + list.textOf(labels.size()) + ")";
}

std::string pssPhrase(int keySizeInBits) {
  constexpr struct {
    SecKeyAlgorithm algorithm;
    const char* hash;
  } kRows[] = {{SecKeyAlgorithm::kSecKeyAlgorithmRSASignatureMessagePSSSHA1, "SHA-1"},
               {SecKeyAlgorithm::kSecKeyAlgorithmRSASignatureMessagePSSSHA224, "SHA-224"},
               {SecKeyAlgorithm::kSecKeyAlgorithmRSASignatureMessagePSSSHA256, "SHA-256"},
               {SecKeyAlgorithm::kSecKeyAlgorithmRSASignatureMessagePSSSHA384, "SHA-384"},
               {SecKeyAlgorithm::kSecKeyAlgorithmRSASignatureMessagePSSSHA512, "SHA-512"}};
  const char* longest = nullptr;
  for (const auto& [algorithm, hash] : kRows) {
    if (keySizeInBits < leastKeySizeFor(algorithm))
      return longest ? std::string{"signs RSA-PSS up to "} + longest
                     : "signs no RSA-PSS, for which it is too short";
    longest = hash;
  }
  return "signs RSA-PSS";
}

/// The operation that a key is published for; the token publishes it for one at most.
std::optional<KeyOperation> operationOf(const PublishedKey& key) {
  if (key.canSign) return KeyOperation::kSign;
  if (key.canDecrypt) return KeyOperation::kDecrypt;
  if (key.canPerformKeyExchange) return KeyOperation::kExchangeKeys;
  return std::nullopt;
}

}  // namespace

std::string subjectOf(std::string_view kind, const Text& id, const Text& label) {
  std::string text{kind};
  if (!id.isNull()) text.append(" ").append(shortened(idText(id), kMostHexDigits));
  if (!label.isNull()) text.append(" \"").append(shortened(displayed(label))).append("\"");
  return text;
}

std::string signingPhrase(ModulePadding padding, int keySizeInBits) {
  const std::string pss = pssPhrase(keySizeInBits);
  const std::string users = "PKCS #1 v1.5 (" + std::string{kPkcs1Users} + ")";
  switch (padding) {
    case ModulePadding::kAdds: return pss + ", " + users;
    case ModulePadding::kNone: return pss + "; not " + users;
    case ModulePadding::kUnknown: break;
  }
  return pss + "; " + users + " unknown until a trial";
}

void CardFindings::add(Finding finding, const Text& id) {
  located_.push_back({std::move(finding), id, false});
}

bool CardFindings::has(FindingID finding, const Text& id) const {
  return std::any_of(located_.begin(), located_.end(), [&](const Located& located) {
    return located.finding.id == finding && !located.id.isNull() && located.id == id &&
           !located.sparesTheFirst;
  });
}

bool CardFindings::hasAny(FindingID finding) const {
  return std::any_of(located_.begin(), located_.end(),
                     [&](const Located& located) { return located.finding.id == finding; });
}

void CardFindings::addChangedKey(const PublishedKey& key, std::string evidence) {
  add({kCardChanged, kFailure, subjectOf("key", key.objectID, Text{}), std::move(evidence)}, key.objectID);
}

void CardFindings::addUnpublished(const std::vector<UnpublishedObject>& objects) {
  for (const UnpublishedObject& object : objects) {
    // Nobody has to do anything about it, or only about the other object of the pair.
    if (object.expected || object.byPartner) continue;
    // The call that failed is told once.
    if (object.cause == kObjectUnread && !contents_.failedRead.empty()) continue;
    std::string evidence = object.reason;
    if (object.cause == kCertificateMissing && contents_.certificates.empty()) {
      evidence += "; there is no certificate at all, but " +
                  countText(contents_.publicKeys.size(), "public key") + " and " +
                  countText(contents_.privateKeys.size(), "private key");
    }
    const Severity severity = object.cause == kObjectUnread ? kUnknown : kFailure;
    add({object.cause, severity, subjectOf(object.kind, object.id, object.label), evidence}, object.id);
  }
}

void CardFindings::addSharedIDs() {
  const auto certificates = labelsByID(contents_.certificates);
  const auto publicKeys = labelsByID(contents_.publicKeys);
  std::map<std::u16string, std::vector<Text>> privateKeys;
  for (const PrivateKeyObject& key : contents_.privateKeys) {
    if (!key.id.isNull()) privateKeys[std::u16string{key.id.units()}].push_back(key.label);
  }
  std::map<std::u16string, std::string> shared;
  const auto collect = [&](const auto& groups, const char* noun) {
    for (const auto& [id, labels] : groups) {
      if (labels.size() < 2) continue;
      std::string& text = shared[id];
      text.append(text.empty() ? "" : ", ").append(groupText(labels, noun));
    }
  };
  collect(certificates, "certificate");
  collect(publicKeys, "public key");
  collect(privateKeys, "private key");
  for (const auto& [id, text] : shared) {
    // Certificates without any key are not published, and it matters to nobody that they have one ID.
    if (!publicKeys.contains(id) && !privateKeys.contains(id)) continue;
    const bool onlyCertificates =
        certificates.contains(id) && publicKeys.contains(id) && publicKeys.at(id).size() == 1;
    const FindingID kind = onlyCertificates && areOfOneKey(Text{id}) ? kCertificatesOfOneKey : kIDShared;
    add({kind, kWarning, "ID " + shortened(idText(Text{id}), kMostHexDigits), text}, Text{id});
  }
}

void CardFindings::addCertificatesOfOtherKeys() {
  if (!contents_.failedRead.empty()) return;  // the right key may not have been read
  std::set<std::u16string> seen;
  for (const CardObject& certificate : contents_.certificates) {
    if (!isPublishable(certificate)) continue;
    const bool isFirst = seen.insert(std::u16string{certificate.about.id.units()}).second;
    const auto fields = fieldsOfCertificate(certificate.data.view());
    if (!fields) continue;
    const KeyValue wanted = valueOf(*fields);
    const CardObject* other = nullptr;
    bool isFound = wanted.value.empty();
    for (const CardObject& key : contents_.publicKeys) {
      const bool isOfOtherKind = key.keyType != CKK_RSA && key.keyType != CKK_EC;
      if (!key.listed || key.id != certificate.id || (key.publicValue.empty() && !isOfOtherKind)) continue;
      isFound = isFound || areSame(valueOf(key), wanted);
      other = &key;
    }
    if (isFound || !other) continue;
    const KeyValue value = valueOf(*other);
    const std::string otherText =
        value.value.empty() ? "the key type " + std::to_string(other->keyType) : textOf(value);
    located_.push_back(
        {{kCertificateOfOtherKey, kFailure,
          subjectOf("certificate", certificate.about.id, certificate.about.label),
          "certificate and public key differ: it has " + textOf(wanted) + ", the " +
              subjectOf("public key", other->about.id, other->about.label) + " has " + otherText},
         certificate.about.id,
         !isFirst});
  }
}

void CardFindings::addValidity(std::chrono::system_clock::time_point now) {
  const std::string today = timeText(now);
  for (const CardObject& certificate : contents_.certificates) {
    if (!isPublishable(certificate)) continue;
    const auto fields = fieldsOfCertificate(certificate.data.view());
    if (!fields) continue;
    const auto tell = [&](FindingID id, const char* what, const Text& time) {
      add({id, kWarning, subjectOf("certificate", certificate.about.id, certificate.about.label),
           what + time.toUtf8() + ", it is " + today},
          certificate.about.id);
    };
    if (!fields->notAfter.isNull() && fields->notAfter.toUtf8() < today)
      tell(kCertificateExpired, "valid until ", fields->notAfter);
    if (!fields->notBefore.isNull() && fields->notBefore.toUtf8() > today)
      tell(kCertificateNotYetValid, "valid from ", fields->notBefore);
  }
}

void CardFindings::addWhatIsNotRead(const std::string& reader) {
  const auto tell = [&](const char* what, const std::string& failed) {
    if (!failed.empty()) add({kObjectUnread, kUnknown, what, failed});
  };
  const bool isToldAsGone = std::any_of(located_.begin(), located_.end(), [](const Located& located) {
    return endsExamination(located.finding.id);
  });
  if (contents_.gone && !isToldAsGone) {
    const std::string& call =
        contents_.failedRead.empty() ? contents_.failedPrivateRead : contents_.failedRead;
    add({*contents_.gone, kUnknown, reader, call});
  } else if (!isToldAsGone && contents_.failedRead == contents_.failedPrivateRead) {
    tell("objects", contents_.failedRead);
  } else if (!isToldAsGone) {
    tell("public keys and certificates", contents_.failedRead);
    tell("private keys", contents_.failedPrivateRead);
  }
  const auto tellMore = [&](bool more, const char* what) {
    if (more) add({kTooManyObjects, kWarning, what, "more than " + std::to_string(kMaxListedObjects)});
  };
  tellMore(contents_.morePublicKeys, "public keys");
  tellMore(contents_.moreCertificates, "certificates");
}

void CardFindings::addLonelyPrivateKeys() {
  if (!contents_.failedRead.empty() || !contents_.failedPrivateRead.empty()) return;
  if (contents_.morePublicKeys || contents_.moreCertificates) return;
  const auto hasNoID = [](const CardObject& object) { return object.id.empty(); };
  const bool mayBeTheirs = std::any_of(contents_.publicKeys.begin(), contents_.publicKeys.end(), hasNoID) ||
                           std::any_of(contents_.certificates.begin(), contents_.certificates.end(), hasNoID);
  if (mayBeTheirs) return;
  const auto isIn = [](const std::vector<CardObject>& objects, const Text& id) {
    return std::any_of(objects.begin(), objects.end(),
                       [&](const CardObject& object) { return object.about.id == id; });
  };
  const char* when = contents_.loggedIn ? "is on the card" : "is visible before login";
  for (const PrivateKeyObject& key : contents_.privateKeys) {
    if (key.id.isNull() || isIn(contents_.publicKeys, key.id) || isIn(contents_.certificates, key.id))
      continue;
    add({kCertificateMissing, kFailure, subjectOf("private key", key.id, key.label),
         std::string{"no certificate and no public key with its ID "} + when},
        key.id);
  }
  // A card that cannot be read may show nothing for that reason alone.
  if (hasAny(kCardChanged) || hasAny(kTokenUnreadable)) return;
  if (contents_.publicKeys.empty() && contents_.certificates.empty() && contents_.privateKeys.empty())
    add({kCardEmpty, kFailure, "", std::string{"no certificate and no key "} + when});
}

void CardFindings::addNothingPublished() {
  if (!contents_.failedRead.empty()) return;
  const bool isTold = std::any_of(located_.begin(), located_.end(), [](const Located& located) {
    return located.finding.severity == kFailure && entryOf(located.finding.id).code.starts_with("MT-C");
  });
  if (isTold) return;
  add({kNothingPublished, kFailure, "",
       countText(contents_.certificates.size(), "certificate") + " and " +
           countText(contents_.publicKeys.size(), "public key") + " show, and none of them is published"});
}

/// Whether objects of that ID belong to different keys, as far as they were read.
bool CardFindings::hasSeveralKeys(const Text& id) const {
  std::optional<KeyValue> first;
  const auto isAnother = [&](const KeyValue& value) {
    if (value.value.empty()) return false;
    if (!first) first = value;
    return !areSame(*first, value);
  };
  for (const CardObject& key : contents_.publicKeys)
    if (key.about.id == id && isAnother(valueOf(key))) return true;
  std::deque<CertificateFields> certificates;  // the values are in them
  for (const CardObject& certificate : contents_.certificates) {
    if (!(certificate.about.id == id)) continue;
    const auto fields = fieldsOfCertificate(certificate.data.view());
    if (fields && isAnother(valueOf(certificates.emplace_back(*fields)))) return true;
  }
  return std::count_if(contents_.privateKeys.begin(), contents_.privateKeys.end(),
                       [&](const PrivateKeyObject& key) { return key.id == id; }) > 1;
}

/// Whether all objects of that ID were read, and belong to one key.
bool CardFindings::areOfOneKey(const Text& id) const {
  if (!contents_.failedRead.empty() || contents_.morePublicKeys || contents_.moreCertificates) return false;
  const auto isRead = [&](const CardObject& certificate) {
    if (!(certificate.about.id == id) || !certificate.readable) return true;
    const auto fields = fieldsOfCertificate(certificate.data.view());
    return fields && !valueOf(*fields).value.empty();
  };
  return std::all_of(contents_.certificates.begin(), contents_.certificates.end(), isRead) &&
         !hasSeveralKeys(id);
}

void CardFindings::addKeys(const std::vector<PublishedKey>& keys, CardReport& report) {
  struct First {
    const PublishedKey* key;
    bool sharesIDWithOtherKey;
  };
  std::map<std::u16string, First> seen;
  for (const PublishedKey& key : keys) {
    KeyReport& own = report.keys.emplace_back();
    own.objectID = key.objectID;
    const auto [first, isNew] = seen.try_emplace(std::u16string{key.objectID.units()}, First{&key, false});
    if (isNew)
      first->second.sharesIDWithOtherKey = has(kIDShared, key.objectID) && hasSeveralKeys(key.objectID);
    own.sharesIDWithOtherKey = first->second.sharesIDWithOtherKey;
    addKey(key, !isNew, own);
    // With another certificate of the same key the first one does the same.
    const bool isAlike =
        has(kCertificatesOfOneKey, key.objectID) && operationOf(key) == operationOf(*first->second.key);
    own.works = phraseFor(key, !isNew && !isAlike);
    own.worksForNothing = own.works.starts_with("nothing");
  }
}

void CardFindings::addKey(const PublishedKey& key, bool isRepeated, KeyReport& report) {
  const auto publicKey = std::find_if(
      contents_.publicKeys.begin(), contents_.publicKeys.end(),
      [&](const CardObject& object) { return object.listed && object.about.id == key.objectID; });
  // Else another object with that ID may be the one.
  const bool isTheOne = publicKey != contents_.publicKeys.end() && contents_.failedRead.empty();
  if (isTheOne) report.labelOnCard = publicKey->about.label;
  const std::string subject = subjectOf("key", key.objectID, report.labelOnCard);
  if (has(kCardChanged, key.objectID)) return;
  const auto tell = [&](FindingID id, Severity severity, std::string evidence) {
    if (!isRepeated) add({id, severity, subject, std::move(evidence)}, key.objectID);
  };

  const bool isOfOtherKey = has(kCertificateOfOtherKey, key.objectID);
  const auto published = operationOf(key);
  if (isOfOtherKey) {
    // What the certificate says of its key says nothing of this one. The ID and the name are its own.
    PublishedKey itself = key;
    itself.keyType = CertificateKeyType::kRSA;
    itself.keySizeInBits = 0;
    const bool isAsked = published && published != KeyOperation::kExchangeKeys;
    if (const auto never = isAsked ? reasonNeverTo(*published, itself) : std::nullopt)
      tell(never->id, never->severity, never->evidence);
  } else if (!published) {
    tell(kKeyUsageMissing, kFailure, "none of digitalSignature, keyEncipherment, keyAgreement");
  } else if (const auto never = reasonNeverTo(*published, key)) {
    tell(never->id, never->severity, never->evidence);
  } else if (published == KeyOperation::kSign) {
    tell(kPkcs1NotTried, kUnknown, "no signature was tried; only a module that pads by itself makes them");
  }
  const bool shallSign = !isOfOtherKey && published == KeyOperation::kSign;
  const bool shallDecrypt = !isOfOtherKey && published == KeyOperation::kDecrypt;

  const auto privateKey =
      std::find_if(contents_.privateKeys.begin(), contents_.privateKeys.end(),
                   [&](const PrivateKeyObject& object) { return object.id == key.objectID; });
  if (privateKey == contents_.privateKeys.end()) {
    if (!contents_.allPrivateKeysSeen) return;
    report.hasPrivateKey = false;
    return tell(kPrivateKeyMissing, kFailure, "after login no private key has its ID");
  }
  report.hasPrivateKey = true;
  report.wantsPinForEachUse = privateKey->alwaysAuthenticate;
  if (privateKey->alwaysAuthenticate == true)
    tell(kPinForEachUse, kWarning, "CKA_ALWAYS_AUTHENTICATE of its private key is true");
  if (shallSign && privateKey->maySign == false)
    tell(kUseNotAllowed, kFailure, "CKA_SIGN of its private key is false");
  if (shallDecrypt && privateKey->mayDecrypt == false)
    tell(kUseNotAllowed, kFailure, "CKA_DECRYPT of its private key is false");
}

std::string CardFindings::phraseFor(const PublishedKey& key, bool isShadowed) const {
  if (isShadowed) return "nothing: the keychain finds another key with its ID first";
  constexpr struct {
    FindingID id;
    const char* phrase;
  } kNothing[] = {
      {kCardChanged, "it was changed since the card was inserted"},
      {kPrivateKeyMissing, "its private key is missing"},
      {kKeyIDTooLong, "its ID is longer than 254 bytes"},
      {kKeyUsageMissing, "its certificate allows no use"},
      {kNoKeyAgreement, "key agreement gets no answer here"},
      {kRsaKeyTooLong, "RSA keys above 2048 bits never sign here"},
      {kKeyNameWithPss, "its name contains \"PSS\", so its signatures are not handed out"},
      {kCertificateOfOtherKey, "its certificate belongs to another key"},
  };
  if (has(kEcKeyNeverSigns, key.objectID))
    return key.canSign ? "nothing: EC keys never sign here" : "nothing: EC keys never decrypt here";
  for (const auto& row : kNothing) {
    if (has(row.id, key.objectID)) return std::string{"nothing: "} + row.phrase;
  }
  if (has(kUseNotAllowed, key.objectID))
    return std::string{"nothing: the card does not allow its private key to "} +
           (key.canSign ? "sign" : "decrypt");
  const std::string once{has(kPinForEachUse, key.objectID) ? kOnceForEachLogin : ""};
  if (key.canSign) return signingPhrase(ModulePadding::kUnknown, key.keySizeInBits) + once;
  return "decrypts PKCS #1 v1.5; not OAEP" + once;
}

void CardFindings::finish(CardReport& report) {
  const bool somethingWorks = std::any_of(report.keys.begin(), report.keys.end(),
                                          [](const KeyReport& key) { return !key.worksForNothing; });
  for (Located& located : located_) {
    Finding& finding = located.finding;
    if (somethingWorks && finding.severity == kFailure && isOfOneObject(finding.id))
      finding.severity = kWarning;
  }
  std::stable_sort(located_.begin(), located_.end(), [](const Located& a, const Located& b) {
    if (a.finding.severity != b.finding.severity) return isWorse(a.finding.severity, b.finding.severity);
    return a.finding.id < b.finding.id;
  });
  for (const auto& [finding, id, sparesTheFirst] : located_) {
    report.findings.push_back(finding);
    bool isSpared = sparesTheFirst;
    for (KeyReport& key : report.keys) {
      if (id.isNull() || !(key.objectID == id)) continue;
      if (!std::exchange(isSpared, false)) key.findings.push_back(finding);
    }
  }
}

}  // namespace mirel
