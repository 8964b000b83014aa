#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <optional>
#include <span>
#include <vector>

#include "bridge/CardRules.h"
#include "bridge/P11Bridge.h"
#include "bridge/SlotDescription.h"
#include "framework/MirelCTKFramework.h"
#include "platform/Log.h"

namespace mirel {
namespace {

constexpr CK_ULONG kPublicValueRoom = 256;  // bytes, what a length request starts with
constexpr CK_ULONG kObjectIdRoom = 256;     // bytes

enum class KeyType { kRSA, kEC, kOther };

using ByteVector = std::vector<CK_BYTE>;

/// Reads the objects of one card through one bridge and session.
class ObjectReader {
 public:
  ObjectReader(P11Bridge& bridge, CK_SESSION_HANDLE session) noexcept : bridge_{bridge}, session_{session} {}

  /// The card's objects of one class; nothing when the search fails.
  [[nodiscard]] std::optional<std::vector<CK_OBJECT_HANDLE>> find(CK_OBJECT_CLASS objectClass) const {
    CK_BBOOL onToken = CK_TRUE;
    std::array filter{CK_ATTRIBUTE{CKA_TOKEN, &onToken, sizeof onToken},
                      CK_ATTRIBUTE{CKA_CLASS, &objectClass, sizeof objectClass}};
    std::vector<CK_OBJECT_HANDLE> found(kMaxListedObjects);
    CK_ULONG numFound = found.size();
    if (bridge_.pkcs11_FindObjects(session_, filter.data(), filter.size(), found.data(), &numFound,
                                   kMaxListedObjects) != CKR_OK) {
      return std::nullopt;
    }
    found.resize(numFound);
    return found;
  }

  /// The lengths of three attributes, asked for at once.
  [[nodiscard]] std::optional<std::array<CK_ULONG, 3>> lengths(CK_OBJECT_HANDLE object,
                                                               const std::array<CK_ATTRIBUTE_TYPE, 3>& types,
                                                               CK_ULONG limit) const {
    std::array<CK_ATTRIBUTE, 3> entries{
        {{types[0], nullptr, 0}, {types[1], nullptr, 0}, {types[2], nullptr, 0}}};
    if (bridge_.pkcs11_getObjsAttriValue(session_, object, entries.data(), entries.size(), entries.size(),
                                         limit) != CKR_OK) {
      return std::nullopt;
    }
    return std::array{entries[0].ulValueLen, entries[1].ulValueLen, entries[2].ulValueLen};
  }

  /// One attribute of the length just asked for; empty without asking when that is 0.
  [[nodiscard]] std::optional<ByteVector> value(CK_OBJECT_HANDLE object, const AttributeRule& rule,
                                                CK_ULONG length) const {
    if (length == 0) return ByteVector{};
    if (length > rule.largest) return std::nullopt;  // the bridge would refuse it after we had made room
    ByteVector bytes(length);
    CK_ATTRIBUTE entry{rule.type, bytes.data(), bytes.size()};
    if (bridge_.pkcs11_getObjsAttriValue(session_, object, &entry, 1, 1, rule.largest) != CKR_OK)
      return std::nullopt;
    bytes.resize(entry.ulValueLen);
    return bytes;
  }

  [[nodiscard]] CK_RV publicValue(KeyType type, CK_OBJECT_HANDLE key, CK_BYTE* outValue,
                                  CK_ULONG* ioLen) const {
    return type == KeyType::kEC ? bridge_.pkcs11_getECPublicKey(session_, key, outValue, ioLen)
                                : bridge_.pkcs11_getRSAKeyModulus(session_, key, outValue, ioLen);
  }

 private:
  P11Bridge& bridge_;
  CK_SESSION_HANDLE session_;
};

/// Only the first byte decides: a module may give the value fewer bytes than the type has.
KeyType keyTypeOf(std::span<const CK_BYTE> value) noexcept {
  if (value.empty()) return KeyType::kOther;
  switch (value.front()) {
    case CKK_EC: return KeyType::kEC;
    case CKK_RSA: return KeyType::kRSA;
    default: return KeyType::kOther;
  }
}

/// Null for a key of another type, which the key name shows as "(null)".
Text namePrefix(KeyType type) {
  switch (type) {
    case KeyType::kEC: return Text{u"EC_"};
    case KeyType::kRSA: return Text{u"RSA_"};
    case KeyType::kOther: break;
  }
  return Text{};
}

enum class Outcome { kRead, kLeftOut, kFailed };

constexpr AttributeRule kModulus = ruleOf(CKO_PUBLIC_KEY, CKA_MODULUS);
constexpr AttributeRule kPoint = ruleOf(CKO_PUBLIC_KEY, CKA_EC_POINT);
constexpr AttributeRule kCertificateLabel = ruleOf(CKO_CERTIFICATE, CKA_LABEL);

/// Any other value that cannot be had, or that is too long, fails the listing as it stands below.
static_assert(std::all_of(kAttributeRules.begin(), kAttributeRules.end(), [](const AttributeRule& rule) {
  const bool isPublicValue = rule.type == CKA_MODULUS || rule.type == CKA_EC_POINT;
  return isPublicValue ||
         (rule.largest == rule.refusedAbove && rule.whenUnreadable == WhenUnreadable::kCardRefused);
}));

/// What becomes of the object when the value cannot be had.
Outcome withoutValue(const AttributeRule& rule) noexcept {
  return rule.whenUnreadable == WhenUnreadable::kObjectLeftOut ? Outcome::kLeftOut : Outcome::kFailed;
}

/// Reads the modulus or point into the record.
Outcome readPublicValue(const ObjectReader& reader, KeyType type, PKCS11_ASYMKEY_INFO& key) {
  if (type == KeyType::kOther) return Outcome::kRead;
  const AttributeRule& rule = type == KeyType::kEC ? kPoint : kModulus;
  CK_ULONG length = kPublicValueRoom;
  // A point that is too long by a little has no length either: the bridge gives none.
  if (reader.publicValue(type, key.hPubKey(), nullptr, &length) != CKR_OK) return withoutValue(rule);
  if (length > kMaxKeyAttributeLen) return Outcome::kFailed;
  ByteVector value(length);
  if (length > 0) {
    if (reader.publicValue(type, key.hPubKey(), value.data(), &length) != CKR_OK) return Outcome::kFailed;
    value.resize(length);
  }
  key.setPKeyValue(Bytes{std::move(value)});
  return Outcome::kRead;
}

/// Fills the record of one key. `lengthReader` works in the stored record's session, `reader` in that
/// of the record being built.
Outcome readKey(const ObjectReader& lengthReader, const ObjectReader& reader, const Text& serialNumber,
                CK_OBJECT_HANDLE object, PKCS11_ASYMKEY_INFO& key) {
  const auto lengths = lengthReader.lengths(object, {CKA_LABEL, CKA_KEY_TYPE, CKA_ID}, kMaxKeyAttributeLen);
  if (!lengths) return Outcome::kFailed;
  const auto [labelLen, keyTypeLen, idLen] = *lengths;
  const auto keyType = reader.value(object, ruleOf(CKO_PUBLIC_KEY, CKA_KEY_TYPE), keyTypeLen);
  if (!keyType) return Outcome::kFailed;
  const auto label = reader.value(object, ruleOf(CKO_PUBLIC_KEY, CKA_LABEL), labelLen);
  if (!label) return Outcome::kFailed;
  const auto id = reader.value(object, ruleOf(CKO_PUBLIC_KEY, CKA_ID), idLen);
  if (!id) return Outcome::kFailed;

  key.setHPubKey(object);
  const KeyType type = keyTypeOf(*keyType);
  if (const Outcome outcome = readPublicValue(reader, type, key); outcome != Outcome::kRead) return outcome;

  const Text idText = Text::fromBytes(*id);
  const Text underscore{u"_"};
  key.setKeyID(idText);
  key.setKeyName(
      joined({serialNumber, underscore, namePrefix(type), idText, underscore, Text::fromBytes(*label)}));
  return Outcome::kRead;
}

/// Fills the record of one certificate; false when any of it cannot be read.
bool readCertificate(const ObjectReader& reader, CK_OBJECT_HANDLE object,
                     PKCS11_CERTIFICATEOBJ_INFO& certificate) {
  const auto lengths = reader.lengths(object, {CKA_LABEL, CKA_ID, CKA_VALUE}, kCertificateLabel.largest);
  if (!lengths) return false;
  const auto [labelLen, idLen, dataLen] = *lengths;
  const auto label = reader.value(object, kCertificateLabel, labelLen);
  if (!label) return false;
  const auto id = reader.value(object, ruleOf(CKO_CERTIFICATE, CKA_ID), idLen);
  if (!id) return false;
  auto data = reader.value(object, ruleOf(CKO_CERTIFICATE, CKA_VALUE), dataLen);
  if (!data) return false;

  certificate.setPbCertData(Bytes{std::move(*data)});
  certificate.setHCert(object);
  certificate.setStrLabel(Text::fromBytes(*label));
  certificate.setStrID(Text::fromBytes(*id));
  return true;
}

/// Appends the certificate once for each key with its ID, in key order.
void bindCertificate(PKCS11_SERVICE_INFO& record, const PKCS11_CERTIFICATEOBJ_INFO& certificate) {
  const auto keys = record.pAsymKeys();
  if (!keys) return;
  for (const auto& key : *keys) {
    if (!key || !(key->keyID() == certificate.strID())) continue;
    record.pCerts()->push_back(certificate.mutableCopyWithZone());
    record.setM_certIndex(record.m_certIndex() + 1);
  }
}

template <typename Records>
std::shared_ptr<Records> newList(std::size_t size) {
  auto list = std::make_shared<Records>();
  list->reserve(size);
  return list;
}

/// Empties both lists, which other records may share, and sets the counts to 0.
void emptyLists(PKCS11_SERVICE_INFO& record) noexcept {
  if (const auto keys = record.pAsymKeys()) keys->clear();
  if (const auto certificates = record.pCerts()) certificates->clear();
  record.setM_keyIndex(0);
  record.setM_certIndex(0);
}

[[noreturn]] void endForIndexOutOfRange(std::int32_t index, std::size_t size) noexcept {
  (void)std::fprintf(stderr, "MirelCTKFramework GetKeyInfo: index %d is outside the list of %zu keys\n",
                     index, size);
  std::abort();
}

}  // namespace

bool MirelCTKFramework::EnumCardKeys(const Text&) noexcept {
  if (listKeysAndCertificates()) return true;
  FreeServiceInfo(p11ServiceInfo_);
  return false;
}

bool MirelCTKFramework::listKeysAndCertificates() noexcept {
  const auto stored = p11ServiceInfo_;
  const auto bridge = p11Bridge();
  if (!stored || !bridge) return false;
  std::shared_ptr<PKCS11_SERVICE_INFO> work = stored->mutableCopyWithZone();
  if (work->hSession() == kNoHandle && bridge->pkcs11_OpenReadOnlySession(work->slotID(), &work) != CKR_OK) {
    return false;
  }

  const ObjectReader reader{*bridge, work->hSession()};
  const auto keyObjects = reader.find(CKO_PUBLIC_KEY);
  if (!keyObjects) return false;
  emptyLists(*work);
  if (!keyObjects->empty()) work->setPAsymKeys(newList<KeyRecords>(keyObjects->size()));
  const auto certificateObjects = reader.find(CKO_CERTIFICATE);
  if (!certificateObjects) return false;
  if (!certificateObjects->empty()) work->setPCerts(newList<CertificateRecords>(certificateObjects->size()));

  const Text serialNumber = Text::fromBytes(work->tokenInfo().serialNumber);
  // Oddity: the first request for each key uses the session of the stored record.
  const ObjectReader lengthReader{*bridge, stored->hSession()};
  for (const CK_OBJECT_HANDLE object : *keyObjects) {
    PKCS11_ASYMKEY_INFO key;
    switch (readKey(lengthReader, reader, serialNumber, object, key)) {
      case Outcome::kFailed: return false;
      case Outcome::kLeftOut: continue;
      case Outcome::kRead: break;
    }
    work->pAsymKeys()->push_back(key.mutableCopyWithZone());
    work->setM_keyIndex(work->m_keyIndex() + 1);
  }
  for (const CK_OBJECT_HANDLE object : *certificateObjects) {
    PKCS11_CERTIFICATEOBJ_INFO certificate;
    if (!readCertificate(reader, object, certificate)) return false;
    bindCertificate(*work, certificate);
  }
  setP11ServiceInfo(work->mutableCopyWithZone());
  return true;
}

bool MirelCTKFramework::GetKeyInfo(const std::shared_ptr<PKCS11_SERVICE_INFO>& record, std::int32_t index,
                                   const std::shared_ptr<PKCS11_ASYMKEY_INFO>& key) noexcept {
  const auto keys = record ? record->pAsymKeys() : nullptr;
  if (!keys || keys->empty() || !key) return false;
  if (index < 0 || static_cast<std::size_t>(index) >= keys->size())
    endForIndexOutOfRange(index, keys->size());
  // Oddity: whether there is a key is all that is answered; `key` stays as it was.
  return (*keys)[static_cast<std::size_t>(index)] != nullptr;
}

bool MirelCTKFramework::BindingKeyCert(
    const Text& readerName, CK_OBJECT_HANDLE object,
    const std::shared_ptr<PKCS11_CERTIFICATEOBJ_INFO>& certificate) noexcept {
  const auto stored = p11ServiceInfo_;
  const auto bridge = p11Bridge();
  if (!stored || !bridge) return false;
  if (!descriptionBeginsWith(stored->slotInfo(), readerName.units())) return false;

  std::array<CK_BYTE, kObjectIdRoom> id{};
  CK_ATTRIBUTE entry{CKA_ID, id.data(), id.size()};
  if (bridge->pkcs11_getObjsAttriValue(stored->hSession(), object, &entry, 1, 1, kObjectIdRoom) != CKR_OK) {
    return false;
  }
  const Text idText = Text::fromBytes(std::span{id}.first(entry.ulValueLen));

  std::shared_ptr<PKCS11_CERTIFICATEOBJ_INFO> chosen = certificate;
  if (const auto certificates = stored->pCerts()) {
    for (const auto& candidate : *certificates) {
      if (!candidate || !(candidate->strID() == idText)) continue;
      // Oddity: this line and the next name the unit MirelCTKFramework and positions there, not this file.
      services_.log->process(logLine("[MirelCTKFramework-366] cert.strID = %@", candidate->strID()));
      chosen = candidate->mutableCopyWithZone();
      break;
    }
  }
  services_.log->process(
      logLine("[MirelCTKFramework-374] pCertInfo.strID = %@", chosen ? chosen->strID() : Text{}));
  // Oddity: the chosen certificate is not handed back.
  return chosen && !chosen->pbCertData().isNull();
}

// By value: a reference to the framework's own member would be reset under our hands.
// NOLINTNEXTLINE(performance-unnecessary-value-param)
bool MirelCTKFramework::FreeServiceInfo(std::shared_ptr<PKCS11_SERVICE_INFO> record) noexcept {
  // Oddity: it is the stored record's keys and certificates that are released, whatever record is passed.
  FreeAllKeyInfo();
  FreeAllCertInfo();
  if (record) emptyLists(*record);
  if (record == p11ServiceInfo_) setP11ServiceInfo(nullptr);
  return true;
}

bool MirelCTKFramework::FreeAllKeyInfo() noexcept {
  const auto stored = p11ServiceInfo_;
  if (!stored) return true;
  if (const auto keys = stored->pAsymKeys()) {
    for (const auto& key : *keys) {
      if (!key) continue;
      key->setPKeyValue(Bytes{});
      key->setKeyName(Text{});
    }
    keys->clear();
  }
  stored->setM_keyIndex(0);
  return true;
}

bool MirelCTKFramework::FreeAllCertInfo() noexcept {
  const auto stored = p11ServiceInfo_;
  if (!stored) return true;
  if (const auto certificates = stored->pCerts()) {
    for (const auto& certificate : *certificates) {
      if (certificate) certificate->setPbCertData(Bytes{});
    }
    certificates->clear();
  }
  stored->setM_certIndex(0);
  return true;
}

}  // namespace mirel
