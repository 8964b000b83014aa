#include "CardContents.h"

#include <algorithm>
#include <initializer_list>
#include <map>
#include <span>
#include <utility>

#include "CodeMeaning.h"
#include "FailureDiary.h"
#include "TokenFindings.h"
#include "bridge/CardRules.h"
#include "bridge/P11Bridge.h"
#include "host/CryptokiNames.h"
#include "platform/Certificate.h"

namespace mirel {
namespace {

constexpr const char* kGetAttribute = "C_GetAttributeValue";

struct Attribute {
  std::optional<std::vector<CK_BYTE>> value;
  std::string trouble;  ///< why there is none, as the end of "its label ..."
  bool tooLong = false;
  bool unread = false;  ///< the module failed
};

/// Keeps the first call that failed.
class FirstFailure {
 public:
  FirstFailure(std::string& outFailedRead, std::optional<FindingID>& outGone)
      : failedRead_{outFailedRead}, gone_{outGone} {}

  void note(const FailedCall& call) {
    if (!failedRead_.empty()) return;
    failedRead_ = answerText(call);
    if (!gone_ && meaningOf(call.name, call.result).kind == FailureKind::kCardGone)
      gone_ = goneFindingOf(call.result);
  }

 private:
  std::string& failedRead_;
  std::optional<FindingID>& gone_;
};

/// Finds and reads in one session, and keeps the first call that failed.
class ObjectReader {
 public:
  ObjectReader(const P11Bridge& bridge, CK_SESSION_HANDLE session, FirstFailure firstFailure)
      : bridge_{bridge}, session_{session}, firstFailure_{firstFailure} {}

  /// As many as `most`, and whether there are more.
  [[nodiscard]] std::vector<CK_OBJECT_HANDLE> find(CK_OBJECT_CLASS objectClass, CK_ULONG most,
                                                   bool& outMore) {
    std::vector<CK_OBJECT_HANDLE> found;
    const auto [function, result] = bridge_.inspectObjects(session_, objectClass, found, most + 1);
    outMore = found.size() > most;
    if (outMore) found.resize(most);
    note(function, result);
    return found;
  }

  /// Asks for the attributes of these rules together, as the token does for their lengths, and keeps the
  /// values for `read`. Where one cannot be had, or the module refuses this, none is kept and nothing is
  /// said: asked alone, each one tells why.
  void readTogether(CK_OBJECT_HANDLE object, std::initializer_list<AttributeRule> rules) {
    kept_.clear();
    std::vector<CK_ATTRIBUTE> lengths;
    for (const AttributeRule& rule : rules) lengths.push_back({rule.type, nullptr, 0});
    if (bridge_.inspectAttributes(session_, object, lengths) != CKR_OK) return;
    std::vector<std::vector<CK_BYTE>> values;
    std::vector<CK_ATTRIBUTE> entries;
    for (const AttributeRule& rule : rules) {
      const CK_ULONG length = lengths[entries.size()].ulValueLen;
      if (length == 0 || length > rule.refusedAbove) return;
      entries.push_back({rule.type, values.emplace_back(length).data(), length});
    }
    if (bridge_.inspectAttributes(session_, object, entries) != CKR_OK) return;
    for (const AttributeRule& rule : rules) {
      const std::size_t i = kept_.size();
      if (entries[i].ulValueLen != values[i].size()) return kept_.clear();
      kept_.emplace(rule.type, std::move(values[i]));
    }
  }

  /// The attribute of a rule, unless it is so long that the card is refused.
  [[nodiscard]] Attribute read(CK_OBJECT_HANDLE object, const AttributeRule& rule) {
    if (auto kept = kept_.extract(rule.type)) return {std::move(kept.mapped()), {}};
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

  /// A CK_BBOOL, by one call; nothing when there is none.
  [[nodiscard]] std::optional<bool> readFlag(CK_OBJECT_HANDLE object, CK_ATTRIBUTE_TYPE type) {
    CK_BBOOL flag = CK_FALSE;
    CK_ATTRIBUTE entry{type, &flag, sizeof flag};
    const CK_RV rv = get(object, entry);
    note(kGetAttribute, rv);
    if (rv != CKR_OK || entry.ulValueLen != sizeof flag) return std::nullopt;
    return flag != CK_FALSE;
  }

 private:
  void note(const char* function, CK_RV rv) {
    if (isFailedRead(function, rv)) firstFailure_.note({function, rv});
  }
  [[nodiscard]] Attribute unreadable(CK_RV rv) {
    note(kGetAttribute, rv);
    if (!isFailedRead(kGetAttribute, rv)) return {{}, "cannot be read, " + cryptokiResultText(rv)};
    return {{}, "could not be read now, " + answerText({kGetAttribute, rv}), false, true};
  }
  [[nodiscard]] CK_RV get(CK_OBJECT_HANDLE object, CK_ATTRIBUTE& entry) const {
    return bridge_.inspectAttributes(session_, object, {&entry, 1});
  }

  const P11Bridge& bridge_;
  CK_SESSION_HANDLE session_;
  FirstFailure firstFailure_;
  std::map<CK_ATTRIBUTE_TYPE, std::vector<CK_BYTE>> kept_;  ///< of one object, until they are asked for
};

void leaveOut(CardObject& object, FindingID cause, std::string reason) {
  object.listed = false;
  if (!object.about.reason.empty()) return;
  object.about.reason = std::move(reason);
  object.about.cause = cause;
}

/// Because of an attribute that cannot be had; the card may be refused for it.
void leaveOut(CardObject& object, const char* what, const Attribute& attribute, bool refusesCard) {
  const bool isFirst = object.about.reason.empty();
  const FindingID cause = attribute.unread ? FindingID::kObjectUnread
                          : refusesCard    ? FindingID::kObjectHidesCard
                                           : FindingID::kObjectLeftOut;
  leaveOut(object, cause, std::string{"its "} + what + " " + attribute.trouble);
  if (!isFirst) return;
  object.about.unread = attribute.unread;
  object.about.blocksCard = refusesCard && !attribute.unread;
}

/// What a value that was read by a rule means for its object.
void judge(CardObject& object, const char* what, const AttributeRule& rule, const Attribute& attribute) {
  if (!attribute.value) {
    const bool refused = attribute.tooLong || rule.whenUnreadable == WhenUnreadable::kCardRefused;
    leaveOut(object, what, attribute, refused);
  } else if (attribute.value->size() > rule.largest) {
    leaveOut(object, FindingID::kObjectLeftOut,
             std::string{"its "} + what + " has " + std::to_string(attribute.value->size()) +
                 " bytes, more than " + std::to_string(rule.largest));
  }
}

/// Label and ID, which every object needs. After a login also whether it shows without one.
void readNames(ObjectReader& reader, const AttributeRule& labelRule, const AttributeRule& idRule,
               bool afterLogin, CardObject& object) {
  if (afterLogin) object.isPrivate = reader.readFlag(object.handle, CKA_PRIVATE).value_or(false);
  if (object.isPrivate) {
    const bool isKey = labelRule.objectClass == CKO_PUBLIC_KEY;
    leaveOut(object, isKey ? FindingID::kPublicKeyPrivate : FindingID::kCertificatePrivate,
             "it is visible only after login");
  }
  const Attribute label = reader.read(object.handle, labelRule);
  const Attribute id = reader.read(object.handle, idRule);
  if (label.value) object.about.label = Text::fromBytes(*label.value);
  if (id.value) {
    object.about.id = Text::fromBytes(*id.value);
    object.id = *id.value;
  }
  judge(object, "label", labelRule, label);
  judge(object, "ID", idRule, id);
}

void readModulus(ObjectReader& reader, CardObject& key) {
  constexpr AttributeRule kRule = ruleOf(CKO_PUBLIC_KEY, CKA_MODULUS);
  Attribute modulus = reader.read(key.handle, kRule);
  judge(key, "modulus", kRule, modulus);
  if (modulus.value) key.publicValue = *std::move(modulus.value);
}

/// The parameters must be there too; their length does not matter.
void readPoint(ObjectReader& reader, CardObject& key) {
  constexpr AttributeRule kRule = ruleOf(CKO_PUBLIC_KEY, CKA_EC_POINT);
  const Attribute parameters = reader.read(key.handle, CKA_EC_PARAMS, 0);
  Attribute point = reader.read(key.handle, kRule);
  if (!parameters.tooLong) leaveOut(key, "EC parameters", parameters, false);
  judge(key, "EC point", kRule, point);
  if (point.value) key.publicValue = *std::move(point.value);
}

CardObject readPublicKey(ObjectReader& reader, CK_OBJECT_HANDLE handle, bool afterLogin) {
  CardObject key;
  key.handle = handle;
  key.about.kind = "public key";
  constexpr AttributeRule kLabelRule = ruleOf(CKO_PUBLIC_KEY, CKA_LABEL);
  constexpr AttributeRule kIDRule = ruleOf(CKO_PUBLIC_KEY, CKA_ID);
  constexpr AttributeRule kTypeRule = ruleOf(CKO_PUBLIC_KEY, CKA_KEY_TYPE);
  reader.readTogether(handle, {kLabelRule, kIDRule, kTypeRule});
  readNames(reader, kLabelRule, kIDRule, afterLogin, key);
  const Attribute type = reader.read(handle, kTypeRule);
  judge(key, "key type", kTypeRule, type);
  if (!type.value) return key;
  key.keyType = type.value->front();
  if (key.keyType == CKK_RSA) readModulus(reader, key);
  if (key.keyType == CKK_EC) readPoint(reader, key);
  return key;
}

CardObject readCertificate(ObjectReader& reader, CK_OBJECT_HANDLE handle, bool afterLogin,
                           CertificateParser& parser) {
  CardObject certificate;
  certificate.handle = handle;
  certificate.about.kind = "certificate";
  constexpr AttributeRule kLabelRule = ruleOf(CKO_CERTIFICATE, CKA_LABEL);
  constexpr AttributeRule kIDRule = ruleOf(CKO_CERTIFICATE, CKA_ID);
  constexpr AttributeRule kValueRule = ruleOf(CKO_CERTIFICATE, CKA_VALUE);
  reader.readTogether(handle, {kLabelRule, kIDRule, kValueRule});
  readNames(reader, kLabelRule, kIDRule, afterLogin, certificate);
  const Attribute data = reader.read(handle, kValueRule);
  judge(certificate, "value", kValueRule, data);
  if (!data.value) return certificate;
  certificate.data = Bytes{*data.value};
  const auto parsed = parser.createWithData(certificate.data);
  certificate.readable = parsed != nullptr;
  certificate.keyIsKnown = parsed && parsed->keyType() != CertificateKeyType::kOther;
  if (!parsed && certificate.about.reason.empty()) {
    // It is listed by the framework all the same, and only its item is missing.
    certificate.about.reason = "its value is not an X.509 certificate in DER";
    certificate.about.cause = FindingID::kCertificateUnusable;
  }
  return certificate;
}

/// Nothing of a private key decides whether it is published, so what cannot be read is not known.
PrivateKeyObject readPrivateKey(ObjectReader& reader, CK_OBJECT_HANDLE handle) {
  PrivateKeyObject key;
  const Attribute id = reader.read(handle, CKA_ID, kMaxKeyAttributeLen);
  const Attribute label = reader.read(handle, CKA_LABEL, kMaxKeyAttributeLen);
  if (id.value) key.id = Text::fromBytes(*id.value);
  if (label.value) key.label = Text::fromBytes(*label.value);
  key.alwaysAuthenticate = reader.readFlag(handle, CKA_ALWAYS_AUTHENTICATE);
  key.maySign = reader.readFlag(handle, CKA_SIGN);
  key.mayDecrypt = reader.readFlag(handle, CKA_DECRYPT);
  return key;
}

bool isLoggedIn(const P11Bridge& bridge, CK_SESSION_HANDLE session, FirstFailure failure) {
  CK_SESSION_INFO info{};
  if (const CK_RV rv = bridge.inspectSession(session, info); rv != CKR_OK) {
    failure.note({"C_GetSessionInfo", rv});
    return false;
  }
  return info.state == CKS_RO_USER_FUNCTIONS || info.state == CKS_RW_USER_FUNCTIONS;
}

}  // namespace

CardContents readCard(const P11Bridge& bridge, CK_SLOT_ID slotID, CertificateParser& certificates,
                      bool afterLogin) {
  CardContents contents;
  if (!bridge.hasModule()) {
    contents.failedRead = "there is no module";
    return contents;
  }
  FirstFailure failure{contents.failedRead, contents.gone};
  CK_SESSION_HANDLE session = 0;
  if (const CK_RV rv = bridge.openInspection(slotID, session); rv != CKR_OK) {
    failure.note({"C_OpenSession", rv});
    return contents;
  }
  contents.loggedIn = afterLogin && isLoggedIn(bridge, session, failure);
  contents.failedPrivateRead = contents.failedRead;  // without the login's state nothing private is known

  ObjectReader reader{bridge, session, failure};
  for (const CK_OBJECT_HANDLE handle :
       reader.find(CKO_PUBLIC_KEY, kMaxListedObjects, contents.morePublicKeys)) {
    contents.publicKeys.push_back(readPublicKey(reader, handle, contents.loggedIn));
  }
  for (const CK_OBJECT_HANDLE handle :
       reader.find(CKO_CERTIFICATE, kMaxListedObjects, contents.moreCertificates)) {
    contents.certificates.push_back(readCertificate(reader, handle, contents.loggedIn, certificates));
  }
  ObjectReader privateReader{bridge, session, {contents.failedPrivateRead, contents.gone}};
  bool more = false;
  for (const CK_OBJECT_HANDLE handle : privateReader.find(CKO_PRIVATE_KEY, kMaxListedObjects, more)) {
    contents.privateKeys.push_back(readPrivateKey(privateReader, handle));
  }
  contents.allPrivateKeysSeen = contents.loggedIn && !more && contents.failedPrivateRead.empty() &&
                                std::none_of(contents.privateKeys.begin(), contents.privateKeys.end(),
                                             [](const PrivateKeyObject& key) { return key.id.isNull(); });
  bridge.closeInspection(session);
  return contents;
}

}  // namespace mirel
