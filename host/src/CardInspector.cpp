#include "CardInspector.h"

#include <algorithm>
#include <optional>
#include <string>
#include <vector>

#include "KeyValue.h"
#include "NameList.h"
#include "bridge/CardRules.h"
#include "host/Display.h"
#include "platform/CertificateFields.h"
#include "platform/KeyUsage.h"

namespace mirel {
namespace {

using Objects = std::vector<CardObject>;

static_assert(kMaxListedObjects == 160, "texts below name the number");

/// What is said of an object whose partner, the other one of the pair with one ID, is not there.
struct PartnerTexts {
  const char* missing;
  const char* missingOrPrivate;
  const char* isPrivate;
  const char* leftOut;
  const char* unread;
  const char* nameless;
  const char* cutOff;
  FindingID causeMissing;
};

constexpr PartnerTexts kNoPublicKey{
    "no public key on the card has its ID",
    "no public key with its ID is visible before login: it is missing, or private",
    "its public key is visible only after login",
    "the public key with its ID is left out",
    "the public key with its ID could not be read now",
    "no public key has its ID, and that of one cannot be read",
    "none of the first 160 public keys has its ID, and no more are listed",
    FindingID::kPublicKeyMissing,
};
constexpr PartnerTexts kNoCertificate{
    "no certificate on the card has its ID",
    "no certificate with its ID is visible before login: it is missing, or private",
    "its certificate is visible only after login",
    "the certificate with its ID is left out",
    "the certificate with its ID could not be read now",
    "no certificate has its ID, and that of one cannot be read",
    "none of the first 160 certificates has its ID, and no more are listed",
    FindingID::kCertificateMissing,
};

std::string shownID(const Text& id) { return shortened(idText(id), kMostHexDigits); }

/// By its extensions (RFC 5280, sections 4.2.1.3 and 4.2.1.9): one that a tool made for its own key often
/// says that it is an authority, but not that it signs certificates.
bool isOfIssuer(const CardObject& certificate) {
  constexpr std::int32_t kKeyCertSign = 1 << 5;
  const auto usage = keyUsageOfCertificate(certificate.data.view());
  if (usage && (*usage & kKeyCertSign) == 0) return false;
  const auto fields = fieldsOfCertificate(certificate.data.view());
  return certificate.about.reason.empty() && fields && fields->isAuthority;
}

/// What the object shows of its key, empty where that is nothing. `fields`: of a certificate.
KeyValue valueOf(const CardObject& object, const std::optional<CertificateFields>& fields) {
  if (fields) return valueOf(*fields);
  return object.publicValue.empty() ? KeyValue{} : valueOf(object);
}

/// Whether both show their keys, and these differ.
bool areOfTwoKeys(const CardObject& a, const CardObject& b) {
  const auto fieldsOfA = fieldsOfCertificate(a.data.view());
  const auto fieldsOfB = fieldsOfCertificate(b.data.view());
  const KeyValue valueOfA = valueOf(a, fieldsOfA);
  const KeyValue valueOfB = valueOf(b, fieldsOfB);
  return !valueOfA.value.empty() && !valueOfB.value.empty() && !areSame(valueOfA, valueOfB);
}

class PairChecker {
 public:
  explicit PairChecker(const CardContents& contents) : contents_{contents} {}

  [[nodiscard]] static bool isListedIn(const Objects& objects, const CardObject& wanted) {
    return std::any_of(objects.begin(), objects.end(),
                       [&](const CardObject& object) { return object.listed && object.id == wanted.id; });
  }

  /// The first certificate with the key's ID where none of those can be read; else null.
  [[nodiscard]] const CardObject* unreadableCertificateOf(const CardObject& key) const {
    const CardObject* first = nullptr;
    for (const CardObject& object : contents_.certificates) {
      if (!object.listed || object.id != key.id) continue;
      if (object.readable) return nullptr;
      if (!first) first = &object;
    }
    return first;
  }

  /// Notes why `object` has no partner among `partners`.
  void missPartner(CardObject& object, const Objects& partners, const PartnerTexts& texts) const {
    const auto partner = std::find_if(partners.begin(), partners.end(), [&](const CardObject& candidate) {
      return !candidate.id.empty() && candidate.id == object.id;
    });
    if (partner != partners.end()) {
      const char* reason = partner->isPrivate      ? texts.isPrivate
                           : partner->about.unread ? texts.unread
                                                   : texts.leftOut;
      return missBecauseOf(*partner, object, reason);
    }
    const bool isCutOff =
        &partners == &contents_.publicKeys ? contents_.morePublicKeys : contents_.moreCertificates;
    if (isCutOff) return miss(object, FindingID::kTooManyObjects, texts.cutOff);
    if (object.about.expected)
      return miss(object, texts.causeMissing, "it is the certificate of an issuer, which needs no key");
    const auto nameless = std::find_if(partners.begin(), partners.end(), [&](const CardObject& candidate) {
      return candidate.id.empty() && !areOfTwoKeys(candidate, object);
    });
    if (nameless != partners.end()) return missBecauseOf(*nameless, object, texts.nameless);
    std::string reason = contents_.loggedIn ? texts.missing : texts.missingOrPrivate;
    if (hasPrivateKey(object)) reason += "; its private key is on the card";
    miss(object, texts.causeMissing, reason);
  }

  /// `partner` is told of by itself, so that this is only listed.
  void missBecauseOf(const CardObject& partner, CardObject& object, const char* reason) const {
    if (!object.about.reason.empty()) return;
    miss(object, partner.about.cause, reason);
    if (!contents_.failedRead.empty()) return;  // then that is what is told
    object.about.unread = partner.about.unread;
    object.about.byPartner = true;
  }

  void miss(CardObject& object, FindingID cause, const std::string& reason) const {
    if (!object.about.reason.empty()) return;
    object.byAbsence = true;
    // What is missing here may only not have been read.
    const bool isKnown = contents_.failedRead.empty();
    object.about.reason = isKnown ? reason : "why cannot be told now, " + contents_.failedRead;
    object.about.cause = isKnown ? cause : FindingID::kObjectUnread;
  }

 private:
  [[nodiscard]] bool hasPrivateKey(const CardObject& object) const {
    return std::any_of(
        contents_.privateKeys.begin(), contents_.privateKeys.end(),
        [&](const PrivateKeyObject& key) { return !key.id.isNull() && key.id == object.about.id; });
  }

  const CardContents& contents_;
};

/// A certificate and the public key of its key that have different IDs are one fault, told of the
/// certificate.
void joinParted(CardContents& contents) {
  for (CardObject& certificate : contents.certificates) {
    const auto& about = certificate.about;
    if (about.cause != FindingID::kPublicKeyMissing || !certificate.byAbsence || about.expected) continue;
    const auto fields = fieldsOfCertificate(certificate.data.view());
    if (!fields || valueOf(*fields).value.empty()) continue;
    const auto key = std::find_if(
        contents.publicKeys.begin(), contents.publicKeys.end(), [&](const CardObject& candidate) {
          return candidate.about.cause == FindingID::kCertificateMissing && candidate.byAbsence &&
                 !candidate.publicValue.empty() && areSame(valueOf(candidate), valueOf(*fields));
        });
    if (key == contents.publicKeys.end()) continue;
    certificate.about.reason += "; the one with the ID " + shownID(key->about.id) + " is of its key";
    key->about.reason += "; the one with the ID " + shownID(certificate.about.id) + " is of its key";
    key->about.byPartner = true;
  }
}

}  // namespace

void explainUnpublished(CardContents& contents) {
  const PairChecker pairs{contents};
  for (CardObject& certificate : contents.certificates) {
    if (!PairChecker::isListedIn(contents.publicKeys, certificate)) {
      certificate.about.expected = isOfIssuer(certificate);
      pairs.missPartner(certificate, contents.publicKeys, kNoPublicKey);
    } else if (!certificate.keyIsKnown && certificate.about.reason.empty()) {
      certificate.about.kind = "public key";
      certificate.about.reason =
          "it is of a kind that the keychain does not know; only its certificate is published";
      certificate.about.cause = FindingID::kObjectLeftOut;
    }
  }
  for (CardObject& key : contents.publicKeys) {
    if (!PairChecker::isListedIn(contents.certificates, key)) {
      pairs.missPartner(key, contents.certificates, kNoCertificate);
    } else if (const CardObject* certificate = pairs.unreadableCertificateOf(key)) {
      pairs.missBecauseOf(*certificate, key, "no certificate with its ID can be read");
    }
  }
  joinParted(contents);
}

}  // namespace mirel
