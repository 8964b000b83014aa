#include "CardChecks.h"

#include <set>
#include <string>

#include "Check.h"
#include "Presentable.h"
#include "bridge/CardRules.h"
#include "host/Display.h"

namespace mirel::fuzz {
namespace {

constexpr AttributeRule kLabel = ruleOf(CKO_CERTIFICATE, CKA_LABEL);
constexpr AttributeRule kID = ruleOf(CKO_CERTIFICATE, CKA_ID);
constexpr AttributeRule kValue = ruleOf(CKO_CERTIFICATE, CKA_VALUE);

void checkCertificate(const PublishedCertificate& certificate) {
  check(certificate.objectID.units().starts_with(kCertificateNamePrefix),
        "a certificate's name begins as it must");
  check(certificate.objectID.length() <= kCertificateNamePrefix.size() + kLabel.largest + 1 + kID.largest,
        "a certificate's name has label and ID within their limits");
  check(certificate.label.length() <= kID.largest, "a certificate's ID is within its limit");
  check(certificate.data.size() == certificate.size && certificate.size > 0 &&
            certificate.size <= kValue.largest,
        "a certificate's size is within its limit");
  check(certificate.notAfter.isNull() || certificate.notAfter.length() == 20, "a time has twenty characters");
  for (const std::string& use : certificate.keyUsage) checkOneLine(use, "a key usage");
}

void checkKey(const PublishedKey& key, const std::set<std::u16string>& certificates) {
  check(key.objectID == key.label && key.objectID.length() <= kID.largest, "a key has its ID for a label");
  check(certificates.contains(std::u16string{key.certificateID.units()}), "a key's certificate is published");
  check(key.keySizeInBits > 0, "a key has a size");
  check(key.keyType == CertificateKeyType::kRSA || key.keyType == CertificateKeyType::kECPrimeRandom,
        "the keychain knows the type of a key");
  const int numUses = int{key.canSign} + int{key.canDecrypt} + int{key.canPerformKeyExchange};
  check(numUses <= 1 && key.constraints.size() == static_cast<std::size_t>(numUses),
        "a key has one use at most");
  check(key.alwaysAuthenticate, "every key wants the PIN");
  for (const auto& [operation, constraint] : key.constraints)
    check(constraint == Text{u"PINAlways"}, "its use wants the PIN");
}

}  // namespace

void checkItems(const InsertedCard& card) {
  // A certificate is listed, with its key, once for each key of its ID.
  check(card.items.size() <= 2 * kMaxListedObjects * kMaxListedObjects,
        "no more is published than is listed");
  check(!card.instanceID.isEmpty() && card.instanceID.length() <= 2 * sizeof(CK_TOKEN_INFO),
        "an instance ID comes from the token's information");
  std::set<std::u16string> certificates;
  for (const PublishedItem& item : card.items) {
    if (const auto* certificate = std::get_if<PublishedCertificate>(&item)) {
      checkCertificate(*certificate);
      certificates.emplace(certificate->objectID.units());
    } else {
      checkKey(std::get<PublishedKey>(item), certificates);
    }
  }
}

void checkReport(const CardReport& report) {
  checkShown(report.failedRead, "the read that failed");
  for (const Finding& finding : report.findings) checkFinding(finding);
  for (const UnpublishedObject& object : report.unpublished) {
    checkOneLine(object.reason, "why an object is not published");
    checkShown(subjectOf(object.kind, object.id, object.label), "an object that is not published");
  }
  for (const KeyReport& key : report.keys) {
    checkOneLine(key.works, "what a key does");
    for (const Finding& finding : key.findings) checkFinding(finding);
  }
}

void lookAtReaders(Host& host) {
  const auto readers = host.readers();
  if (!readers) return checkFailure(readers.failure());
  for (const Reader& reader : *readers) {
    checkShown(displayed(reader.name), "the name of a reader");
    if (reader.unreadable) checkFailure(*reader.unreadable);
    for (const std::string& flag : reader.tokenFlags) checkOneLine(flag, "a flag of a token");
    checkReport(host.examine(reader));
    const auto pin = host.pinState(reader);
    if (!pin) checkFailure(pin.failure());
    (void)host.triesLeft(reader);  // any number may be right
  }
  if (readers->empty()) checkFailure(host.whyNoCard("there is no card").failure);
}

}  // namespace mirel::fuzz
