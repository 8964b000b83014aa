#include "CardInspector.h"

#include <algorithm>
#include <array>
#include <optional>

#include "CodeMeaning.h"
#include "FailureDiary.h"
#include "bridge/CardRules.h"
#include "bridge/P11Bridge.h"
#include "host/CryptokiNames.h"

namespace mirel {
namespace {

constexpr const char* kPublicKeyKind = "public key";

struct Attribute {
  std::optional<std::vector<CK_BYTE>> value;
  std::string trouble;  ///< why there is none, as the end of "its label ..."
  bool tooLong = false;
  bool unread = false;  ///< the module failed
};

struct CardObject {
  UnpublishedObject about;
  std::vector<CK_BYTE> id;
  Bytes data;  ///< of a certificate
  CK_KEY_TYPE keyType = 0;
  bool listed = true;      ///< by the card framework
  bool readable = true;    ///< for a certificate: as one
  bool keyIsKnown = true;  ///< for a certificate: to the keychain
  bool byAbsence = false;  ///< left out because another object was not found
};

class Inspector {
 public:
  Inspector(const P11Bridge& bridge, CK_SESSION_HANDLE session) : bridge_{bridge}, session_{session} {}

  /// The first call that failed to find or read something; empty: none.
  [[nodiscard]] const std::string& failedRead() const noexcept { return failedRead_; }

  [[nodiscard]] std::vector<CK_OBJECT_HANDLE> find(CK_OBJECT_CLASS objectClass) {
    std::vector<CK_OBJECT_HANDLE> found;
    const auto [function, result] = bridge_.inspectObjects(session_, objectClass, found);
    note(function, result);
    return found;
  }

  /// The attribute of a rule, unless it is so long that the card is refused.
  [[nodiscard]] Attribute read(CK_OBJECT_HANDLE object, const AttributeRule& rule) {
    return read(object, rule.type, rule.refusedAbove);
  }

  /// One attribute, if it has 1 to `limit` bytes.
  [[nodiscard]] Attribute read(CK_OBJECT_HANDLE object, CK_ATTRIBUTE_TYPE type, CK_ULONG limit) {
    CK_ATTRIBUTE entry{type, nullptr, 0};
    if (const CK_RV rv = get(object, entry); rv != CKR_OK) return unreadable(rv);
    const CK_ULONG length = entry.ulValueLen;
    if (length == CK_UNAVAILABLE_INFORMATION) return {{}, "is not available"};
    if (length == 0) return {{}, "is empty"};
    if (length > limit) {
      return {{}, "has " + std::to_string(length) + " bytes, more than " + std::to_string(limit), true};
    }
    std::vector<CK_BYTE> bytes(length);
    entry.pValue = bytes.data();
    if (const CK_RV rv = get(object, entry); rv != CKR_OK) return unreadable(rv);
    if (entry.ulValueLen == 0 || entry.ulValueLen > length)
      return {{}, "changes its length while it is read", false, true};
    bytes.resize(entry.ulValueLen);
    return {std::move(bytes), {}};
  }

 private:
  void note(const char* function, CK_RV rv) {
    if (failedRead_.empty() && isFailedRead(function, rv)) failedRead_ = answerText({function, rv});
  }
  [[nodiscard]] Attribute unreadable(CK_RV rv) {
    constexpr const char* kFunction = "C_GetAttributeValue";
    note(kFunction, rv);
    if (!isFailedRead(kFunction, rv)) return {{}, "cannot be read, " + cryptokiResultText(rv)};
    return {{}, "could not be read now, " + answerText({kFunction, rv}), false, true};
  }
  [[nodiscard]] CK_RV get(CK_OBJECT_HANDLE object, CK_ATTRIBUTE& entry) const {
    return bridge_.inspectAttribute(session_, object, entry);
  }

  const P11Bridge& bridge_;
  CK_SESSION_HANDLE session_;
  std::string failedRead_;
};

void block(CardObject& object, const char* what, const Attribute& attribute) {
  if (!object.about.reason.empty()) return;
  object.about.reason = std::string{"its "} + what + " " + attribute.trouble;
  object.about.unread = attribute.unread;
  object.about.blocksCard = !attribute.unread;
  object.listed = false;
}

void leaveOut(CardObject& object, std::string reason, bool unread = false) {
  if (!object.about.reason.empty()) return;
  object.about.reason = std::move(reason);
  object.about.unread = unread;
}

/// What a value that was read by a rule means for its object.
void judge(CardObject& object, const char* what, const AttributeRule& rule, const Attribute& attribute) {
  if (attribute.value && attribute.value->size() <= rule.largest) return;
  if (attribute.value) {
    leaveOut(object, std::string{"its "} + what + " has " + std::to_string(attribute.value->size()) +
                         " bytes, more than " + std::to_string(rule.largest));
  } else if (attribute.tooLong || rule.whenUnreadable == WhenUnreadable::kCardRefused) {
    block(object, what, attribute);
  } else {
    leaveOut(object, std::string{"its "} + what + " " + attribute.trouble, attribute.unread);
  }
  object.listed = false;
}

/// Label and ID, which every object needs.
void readNames(Inspector& inspector, CK_OBJECT_HANDLE handle, const AttributeRule& labelRule,
               const AttributeRule& idRule, CardObject& object) {
  const Attribute label = inspector.read(handle, labelRule);
  const Attribute id = inspector.read(handle, idRule);
  if (label.value) object.about.label = Text::fromBytes(*label.value);
  if (id.value) {
    object.about.id = Text::fromBytes(*id.value);
    object.id = *id.value;
  }
  judge(object, "label", labelRule, label);
  judge(object, "ID", idRule, id);
}

void inspectModulus(Inspector& inspector, CK_OBJECT_HANDLE handle, CardObject& key) {
  constexpr AttributeRule kRule = ruleOf(CKO_PUBLIC_KEY, CKA_MODULUS);
  judge(key, "modulus", kRule, inspector.read(handle, kRule));
}

/// The parameters must be there too; their length does not matter.
void inspectPoint(Inspector& inspector, CK_OBJECT_HANDLE handle, CardObject& key) {
  constexpr AttributeRule kRule = ruleOf(CKO_PUBLIC_KEY, CKA_EC_POINT);
  const Attribute parameters = inspector.read(handle, CKA_EC_PARAMS, 0);
  const Attribute point = inspector.read(handle, kRule);
  if (!parameters.tooLong) {
    leaveOut(key, "its EC parameters " + parameters.trouble, parameters.unread);
    key.listed = false;
  }
  judge(key, "EC point", kRule, point);
}

CardObject inspectKey(Inspector& inspector, CK_OBJECT_HANDLE handle) {
  CardObject key;
  key.about.kind = kPublicKeyKind;
  readNames(inspector, handle, ruleOf(CKO_PUBLIC_KEY, CKA_LABEL), ruleOf(CKO_PUBLIC_KEY, CKA_ID), key);
  constexpr AttributeRule kTypeRule = ruleOf(CKO_PUBLIC_KEY, CKA_KEY_TYPE);
  const Attribute type = inspector.read(handle, kTypeRule);
  judge(key, "key type", kTypeRule, type);
  if (!type.value) return key;
  key.keyType = type.value->front();
  if (key.keyType == CKK_RSA) inspectModulus(inspector, handle, key);
  if (key.keyType == CKK_EC) inspectPoint(inspector, handle, key);
  return key;
}

CardObject inspectCertificate(Inspector& inspector, CK_OBJECT_HANDLE handle, CertificateParser& parser) {
  CardObject certificate;
  certificate.about.kind = "certificate";
  readNames(inspector, handle, ruleOf(CKO_CERTIFICATE, CKA_LABEL), ruleOf(CKO_CERTIFICATE, CKA_ID),
            certificate);
  constexpr AttributeRule kValueRule = ruleOf(CKO_CERTIFICATE, CKA_VALUE);
  const Attribute data = inspector.read(handle, kValueRule);
  judge(certificate, "value", kValueRule, data);
  if (!data.value) return certificate;
  certificate.data = Bytes{*data.value};
  const auto parsed = parser.createWithData(certificate.data);
  if (!parsed) {
    leaveOut(certificate, "its value is not an X.509 certificate in DER");
    certificate.readable = false;
  } else if (parsed->keyType() == CertificateKeyType::kOther) {
    certificate.keyIsKnown = false;
  }
  return certificate;
}

}  // namespace

Inspection inspectCard(const P11Bridge& bridge, CK_SLOT_ID slotID, CertificateParser& certificates) {
  if (!bridge.hasModule()) return {};
  CK_SESSION_HANDLE session = 0;
  if (const CK_RV rv = bridge.openInspection(slotID, session); rv != CKR_OK) {
    return {{}, answerText({"C_OpenSession", rv})};
  }
  Inspector inspector{bridge, session};
  std::vector<CardObject> keys;
  std::vector<CardObject> certificateObjects;
  for (const CK_OBJECT_HANDLE handle : inspector.find(CKO_PUBLIC_KEY))
    keys.push_back(inspectKey(inspector, handle));
  for (const CK_OBJECT_HANDLE handle : inspector.find(CKO_CERTIFICATE)) {
    certificateObjects.push_back(inspectCertificate(inspector, handle, certificates));
  }
  bridge.closeInspection(session);

  const auto listedIn = [](const std::vector<CardObject>& objects, const CardObject& wanted) {
    return std::any_of(objects.begin(), objects.end(),
                       [&](const CardObject& object) { return object.listed && object.id == wanted.id; });
  };
  const auto readableFor = [&](const CardObject& key) {
    return std::any_of(certificateObjects.begin(), certificateObjects.end(), [&](const CardObject& object) {
      return object.listed && object.readable && object.id == key.id;
    });
  };
  // What is missing here may only not have been read.
  const std::string& failed = inspector.failedRead();
  const auto miss = [&](CardObject& object, const char* reason) {
    object.byAbsence = object.about.reason.empty();
    leaveOut(object, failed.empty() ? std::string{reason} : "why cannot be told now, " + failed);
  };
  for (CardObject& certificate : certificateObjects) {
    if (!listedIn(keys, certificate)) {
      miss(certificate, "no public key on the card has its ID");
    } else if (!certificate.keyIsKnown && certificate.about.reason.empty()) {
      certificate.about.kind = kPublicKeyKind;
      leaveOut(certificate,
               "it is of a kind that the keychain does not know; only its certificate is published");
    }
  }
  for (CardObject& key : keys) {
    if (!listedIn(certificateObjects, key)) {
      miss(key, "no certificate on the card has its ID");
    } else if (!readableFor(key)) {
      miss(key, "no certificate with its ID can be read");
    }
  }

  Inspection inspection{{}, failed};
  for (const auto* objects : {&keys, &certificateObjects}) {
    for (const CardObject& object : *objects) {
      if (!object.about.reason.empty())
        inspection.objects.push_back({object.about, object.data, object.byAbsence});
    }
  }
  return inspection;
}

}  // namespace mirel
