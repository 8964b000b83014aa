#include "CardInspector.h"

#include <algorithm>
#include <array>
#include <optional>

#include "CallEntry.h"
#include "host/CryptokiNames.h"

namespace mirel {
namespace {

// What the layers below take; a longer value is not read.
constexpr std::size_t kSearchLimit = 160;  // objects
constexpr CK_ULONG kKeyAttributeLimit = 2000;
constexpr CK_ULONG kCertificateTextLimit = 256;
constexpr CK_ULONG kCertificateDataLimit = 2000;
constexpr CK_ULONG kModulusLimit = 639;
constexpr CK_ULONG kSilentPointLimit = 200;  // a longer point leaves its key out, up to ...
constexpr CK_ULONG kPointLimit = 520;        // ... this; then the card is refused

struct Attribute {
  std::optional<std::vector<CK_BYTE>> value;
  std::string trouble;  ///< why there is none, as the end of "its label ..."
  bool tooLong = false;
};

struct CardObject {
  UnpublishedObject about;
  std::vector<CK_BYTE> id;
  CK_KEY_TYPE keyType = 0;
  bool listed = true;    ///< by the card framework
  bool readable = true;  ///< for a certificate: as one
};

class Inspector {
 public:
  Inspector(const CK_FUNCTION_LIST& list, CK_SESSION_HANDLE session) : list_{list}, session_{session} {}

  [[nodiscard]] std::vector<CK_OBJECT_HANDLE> find(CK_OBJECT_CLASS objectClass) const {
    std::vector<CK_OBJECT_HANDLE> found;
    CK_ATTRIBUTE filter{CKA_CLASS, &objectClass, sizeof objectClass};
    if (callEntry(list_.C_FindObjectsInit, session_, &filter, CK_ULONG{1}) != CKR_OK) return found;
    while (found.size() < kSearchLimit) {
      CK_OBJECT_HANDLE object = 0;
      CK_ULONG count = 0;
      if (callEntry(list_.C_FindObjects, session_, &object, CK_ULONG{1}, &count) != CKR_OK || count != 1)
        break;
      found.push_back(object);
    }
    (void)callEntry(list_.C_FindObjectsFinal, session_);
    return found;
  }

  /// One attribute, if it has 1 to `limit` bytes.
  [[nodiscard]] Attribute read(CK_OBJECT_HANDLE object, CK_ATTRIBUTE_TYPE type, CK_ULONG limit) const {
    CK_ATTRIBUTE entry{type, nullptr, 0};
    if (const CK_RV rv = get(object, entry); rv != CKR_OK)
      return {{}, "cannot be read, " + cryptokiResultText(rv)};
    const CK_ULONG length = entry.ulValueLen;
    if (length == CK_UNAVAILABLE_INFORMATION) return {{}, "is not available"};
    if (length == 0) return {{}, "is empty"};
    if (length > limit) {
      return {{}, "has " + std::to_string(length) + " bytes, more than " + std::to_string(limit), true};
    }
    std::vector<CK_BYTE> bytes(length);
    entry.pValue = bytes.data();
    if (const CK_RV rv = get(object, entry); rv != CKR_OK)
      return {{}, "cannot be read, " + cryptokiResultText(rv)};
    if (entry.ulValueLen == 0 || entry.ulValueLen > length)
      return {{}, "changes its length while it is read"};
    bytes.resize(entry.ulValueLen);
    return {std::move(bytes), {}};
  }

 private:
  [[nodiscard]] CK_RV get(CK_OBJECT_HANDLE object, CK_ATTRIBUTE& entry) const {
    return callEntry(list_.C_GetAttributeValue, session_, object, &entry, CK_ULONG{1});
  }

  const CK_FUNCTION_LIST& list_;
  CK_SESSION_HANDLE session_;
};

void block(CardObject& object, const char* attribute, const std::string& trouble) {
  if (!object.about.reason.empty()) return;
  object.about.reason = std::string{"its "} + attribute + " " + trouble;
  object.about.blocksCard = true;
  object.listed = false;
}

void leaveOut(CardObject& object, std::string reason) {
  if (object.about.reason.empty()) object.about.reason = std::move(reason);
}

/// Label and ID, which every object needs.
void readNames(const Inspector& inspector, CK_OBJECT_HANDLE handle, CK_ULONG limit, CardObject& object) {
  const Attribute label = inspector.read(handle, CKA_LABEL, limit);
  const Attribute id = inspector.read(handle, CKA_ID, limit);
  if (label.value) object.about.label = Text::fromBytes(*label.value);
  if (id.value) {
    object.about.id = Text::fromBytes(*id.value);
    object.id = *id.value;
  }
  if (!label.value) block(object, "label", label.trouble);
  if (!id.value) block(object, "ID", id.trouble);
}

/// A modulus without a readable length leaves its key out; one that is too long, the whole card.
void inspectModulus(const Inspector& inspector, CK_OBJECT_HANDLE handle, CardObject& key) {
  const Attribute modulus = inspector.read(handle, CKA_MODULUS, kModulusLimit);
  if (modulus.tooLong) block(key, "modulus", modulus.trouble);
  if (!modulus.value) leaveOut(key, "its modulus " + modulus.trouble);
  key.listed = key.listed && modulus.value.has_value();
}

/// The same for an EC point and its parameters, whose length does not matter.
void inspectPoint(const Inspector& inspector, CK_OBJECT_HANDLE handle, CardObject& key) {
  const Attribute parameters = inspector.read(handle, CKA_EC_PARAMS, 0);
  const Attribute point = inspector.read(handle, CKA_EC_POINT, kPointLimit);
  if (point.tooLong) block(key, "EC point", point.trouble);
  if (!parameters.tooLong) {
    leaveOut(key, "its EC parameters " + parameters.trouble);
    key.listed = false;
  }
  if (!point.value) leaveOut(key, "its EC point " + point.trouble);
  const bool silentlyTooLong = point.value && point.value->size() > kSilentPointLimit;
  if (silentlyTooLong) {
    leaveOut(key, "its EC point has " + std::to_string(point.value->size()) + " bytes, more than " +
                      std::to_string(kSilentPointLimit));
  }
  key.listed = key.listed && point.value && !silentlyTooLong;
}

CardObject inspectKey(const Inspector& inspector, CK_OBJECT_HANDLE handle) {
  CardObject key;
  key.about.kind = "public key";
  readNames(inspector, handle, kKeyAttributeLimit, key);
  const Attribute type = inspector.read(handle, CKA_KEY_TYPE, kKeyAttributeLimit);
  if (!type.value) {
    block(key, "key type", type.trouble);
    return key;
  }
  key.keyType = type.value->front();
  if (key.keyType == CKK_RSA) inspectModulus(inspector, handle, key);
  if (key.keyType == CKK_EC) inspectPoint(inspector, handle, key);
  return key;
}

CardObject inspectCertificate(const Inspector& inspector, CK_OBJECT_HANDLE handle,
                              CertificateParser& parser) {
  CardObject certificate;
  certificate.about.kind = "certificate";
  readNames(inspector, handle, kCertificateTextLimit, certificate);
  const Attribute data = inspector.read(handle, CKA_VALUE, kCertificateDataLimit);
  if (!data.value) {
    block(certificate, "value", data.trouble);
    return certificate;
  }
  const auto parsed = parser.createWithData(Bytes{*data.value});
  if (!parsed) {
    leaveOut(certificate, "its value is not an X.509 certificate in DER");
    certificate.readable = false;
  } else if (parsed->keyType() == CertificateKeyType::kOther) {
    leaveOut(certificate,
             "its key is of a kind that the keychain does not know; only the certificate is published");
  }
  return certificate;
}

}  // namespace

std::vector<UnpublishedObject> inspectCard(const CK_FUNCTION_LIST& list, CK_SLOT_ID slotID,
                                           CertificateParser& certificates) {
  CK_SESSION_HANDLE session = 0;
  if (callEntry(list.C_OpenSession, slotID, CKF_SERIAL_SESSION, nullptr, nullptr, &session) != CKR_OK)
    return {};
  const Inspector inspector{list, session};
  std::vector<CardObject> keys;
  std::vector<CardObject> certificateObjects;
  for (const CK_OBJECT_HANDLE handle : inspector.find(CKO_PUBLIC_KEY))
    keys.push_back(inspectKey(inspector, handle));
  for (const CK_OBJECT_HANDLE handle : inspector.find(CKO_CERTIFICATE)) {
    certificateObjects.push_back(inspectCertificate(inspector, handle, certificates));
  }
  (void)callEntry(list.C_CloseSession, session);

  const auto listedIn = [](const std::vector<CardObject>& objects, const CardObject& wanted) {
    return std::any_of(objects.begin(), objects.end(),
                       [&](const CardObject& object) { return object.listed && object.id == wanted.id; });
  };
  const auto readableFor = [&](const CardObject& key) {
    return std::any_of(certificateObjects.begin(), certificateObjects.end(), [&](const CardObject& object) {
      return object.listed && object.readable && object.id == key.id;
    });
  };
  for (CardObject& certificate : certificateObjects) {
    if (!listedIn(keys, certificate)) leaveOut(certificate, "no public key on the card has its ID");
  }
  for (CardObject& key : keys) {
    if (!listedIn(certificateObjects, key)) {
      leaveOut(key, "no certificate on the card has its ID");
    } else if (!readableFor(key)) {
      leaveOut(key, "no certificate with its ID can be read");
    }
  }

  std::vector<UnpublishedObject> unpublished;
  for (const auto* objects : {&keys, &certificateObjects}) {
    for (const CardObject& object : *objects) {
      if (!object.about.reason.empty()) unpublished.push_back(object.about);
    }
  }
  return unpublished;
}

}  // namespace mirel
