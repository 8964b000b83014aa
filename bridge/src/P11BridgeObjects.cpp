#include <algorithm>
#include <array>
#include <cstring>
#include <span>
#include <vector>

#include "CryptokiCall.h"
#include "CryptokiValues.h"
#include "platform/Memory.h"

namespace mirel {
namespace {

constexpr CK_ULONG kKeyIdCapacity = kMaxSearchedIDLen + 1;  // bytes; an ID that fills it is refused
constexpr CK_ULONG kMaxLabelMatches = 20;                   // certificates

constexpr AttributeRule kModulus = ruleOf(CKO_PUBLIC_KEY, CKA_MODULUS);
constexpr AttributeRule kPoint = ruleOf(CKO_PUBLIC_KEY, CKA_EC_POINT);
constexpr AttributeRule kCertificateValue = ruleOf(CKO_CERTIFICATE, CKA_VALUE);
// Oddity: what fills the limit of a read is not fetched for its length.
constexpr CK_ULONG kLargestFetchedParameters = kPoint.largest - 1;
constexpr CK_ULONG kLargestFetchedCertificate = kCertificateValue.largest - 1;

bool isEmptyOrUnavailable(CK_ULONG length) noexcept {
  return length == 0 || length == CK_UNAVAILABLE_INFORMATION;
}

void setLength(CK_ULONG* outLen, CK_ULONG length) noexcept {
  if (outLen) *outLen = length;
}

/// The template of one attribute read, guarded: the module gets the caller's entries to fill in, but
/// can neither exchange their pointers nor make a buffer look larger than it is.
class GuardedTemplate {
 public:
  GuardedTemplate(std::span<CK_ATTRIBUTE> entries, Memory& memory)
      : entries_{entries}, offered_{entries.begin(), entries.end()}, memory_{memory} {}

  /// To be called after each time the module has seen the entries.
  void restorePointers() noexcept {
    for (std::size_t i = 0; i < entries_.size(); ++i) {
      entries_[i].type = offered_[i].type;
      entries_[i].pValue = offered_[i].pValue;
    }
  }

  /// Makes the entries ready for reading again: with the lengths last reported, but never more than was
  /// offered before, which is at first what the buffers hold.
  void offerBuffers() noexcept {
    for (std::size_t i = 0; i < entries_.size(); ++i) {
      if (!entries_[i].pValue) continue;
      offered_[i].ulValueLen = std::min(entries_[i].ulValueLen, offered_[i].ulValueLen);
      entries_[i].ulValueLen = offered_[i].ulValueLen;
    }
  }

  /// True when the module claims more for one of the entries 0 to `last` than it was offered.
  [[nodiscard]] bool overclaimed(std::size_t last) const noexcept {
    for (std::size_t i = 0; i <= last; ++i) {
      if (entries_[i].pValue && entries_[i].ulValueLen > offered_[i].ulValueLen) return true;
    }
    return false;
  }

  /// Oddity: releases the buffers of the entries 1 to `failedAt` + 1; the first entry's stays its owner's.
  void cleanUp(std::size_t failedAt) noexcept {
    for (std::size_t i = std::min(failedAt + 2, entries_.size()); i-- > 1;) {
      if (!entries_[i].pValue) continue;
      memory_.release(entries_[i].pValue);
      entries_[i].pValue = nullptr;
      entries_[i].ulValueLen = 0;
    }
  }

 private:
  std::span<CK_ATTRIBUTE> entries_;
  std::vector<CK_ATTRIBUTE> offered_;
  Memory& memory_;
};

}  // namespace

CK_RV P11Bridge::pkcs11_FindObjects(CK_SESSION_HANDLE session, CK_ATTRIBUTE* attributes, CK_ULONG count,
                                    CK_OBJECT_HANDLE* outObjects, CK_ULONG* outCount,
                                    CK_ULONG maxObjects) noexcept {
  return operation(BridgeOperation::pkcs11_FindObjects, [&]() -> CK_RV {
    if (!ckFunc()) return CKR_CRYPTOKI_NOT_INITIALIZED;
    if (!outCount) return CKR_ARGUMENTS_BAD;
    if (CK_RV rv = call<&CK_FUNCTION_LIST::C_FindObjectsInit>(session, attributes, count); rv != CKR_OK) {
      return rv;
    }

    std::array<CK_OBJECT_HANDLE, kMaxFoundObjects> found{};
    const std::size_t limit = std::min(maxObjects, kMaxFoundObjects);
    std::size_t numFound = 0;
    CK_RV rv = CKR_OK;
    while (true) {
      CK_OBJECT_HANDLE object = 0;
      CK_ULONG numFetched = 0;
      rv = call<&CK_FUNCTION_LIST::C_FindObjects>(session, &object, CK_ULONG{1}, &numFetched);
      if (rv != CKR_OK || numFetched != 1 || numFound == limit) break;
      found[numFound++] = object;
    }
    (void)call<&CK_FUNCTION_LIST::C_FindObjectsFinal>(session);  // the handles are ours already

    *outCount = numFound;
    // Oddity: counting succeeds even when the search broke off.
    if (!outObjects) return CKR_OK;
    std::copy_n(found.begin(), numFound, outObjects);
    return rv;
  });
}

CK_RV P11Bridge::pkcs11_getObjsAttriValue(CK_SESSION_HANDLE session, CK_OBJECT_HANDLE object,
                                          CK_ATTRIBUTE* attributes, CK_ULONG count, CK_ULONG maxCount,
                                          CK_ULONG maxValueLen) noexcept {
  return operation(BridgeOperation::pkcs11_getObjsAttriValue, [&]() -> CK_RV {
    if (!ckFunc()) return CKR_CRYPTOKI_NOT_INITIALIZED;
    // A count above the limit is the caller's mistake; no more of its entries is touched than the
    // clean-up of a first read reaches.
    const bool tooMany = count > maxCount;
    if (!attributes && count > 0) return tooMany ? CKR_FUNCTION_FAILED : CKR_ARGUMENTS_BAD;
    const std::span<CK_ATTRIBUTE> entries{attributes, tooMany ? std::min<CK_ULONG>(count, 2) : count};
    GuardedTemplate guarded{entries, *services_.memory};
    const auto failedAt = [&](std::size_t i, CK_RV rv) {
      guarded.cleanUp(i);
      return rv;
    };
    const auto read = [&] {
      const CK_RV rv = call<&CK_FUNCTION_LIST::C_GetAttributeValue>(session, object, attributes, count);
      guarded.restorePointers();
      return rv;
    };

    if (tooMany) return failedAt(0, CKR_FUNCTION_FAILED);
    if (CK_RV rv = read(); rv != CKR_OK) return failedAt(0, rv);
    for (std::size_t i = 0; i < entries.size(); ++i) {
      const CK_ULONG& length = entries[i].ulValueLen;
      if (isEmptyOrUnavailable(length)) return failedAt(i, CKR_ATTRIBUTE_VALUE_INVALID);
      if (!entries[i].pValue) continue;
      if (guarded.overclaimed(i)) return failedAt(i, CKR_BUFFER_TOO_SMALL);
      guarded.offerBuffers();
      if (CK_RV rv = read(); rv != CKR_OK) return failedAt(i, kRereadFailed | rv);
      if (isEmptyOrUnavailable(length)) return failedAt(i, kRereadFailed | CKR_ATTRIBUTE_VALUE_INVALID);
      if (length > maxValueLen || guarded.overclaimed(i)) return failedAt(i, CKR_BUFFER_TOO_SMALL);
    }
    return CKR_OK;
  });
}

/// How one kind of value is read: the attributes asked for, the value being the last of them.
struct P11Bridge::ValueReader {
  struct Attribute {
    CK_ATTRIBUTE_TYPE type;
    CK_ULONG largest;  ///< bytes; a longer value is not fetched
  };
  BridgeOperation operation;
  std::span<const Attribute> attributes;  ///< at most 2
  CK_ULONG limit;                         ///< bytes, for each value
};

CK_RV P11Bridge::readValue(const ValueReader& reader, CK_SESSION_HANDLE session, CK_OBJECT_HANDLE object,
                           CK_BYTE* outValue, CK_ULONG* ioLen) noexcept {
  return operation(reader.operation, [&]() -> CK_RV {
    const CK_ULONG capacity = ioLen ? *ioLen : 0;
    setLength(ioLen, 0);
    if (!ckFunc()) return CKR_CRYPTOKI_NOT_INITIALIZED;
    if (isNoHandle(session) || isNoHandle(object)) return CKR_ARGUMENTS_BAD;

    const std::size_t count = reader.attributes.size();
    std::array<CK_ATTRIBUTE, 2> entries{};
    for (std::size_t i = 0; i < count; ++i) entries[i].type = reader.attributes[i].type;
    if (CK_RV rv = pkcs11_getObjsAttriValue(session, object, entries.data(), count, count, reader.limit);
        rv != CKR_OK) {
      return rv;
    }

    std::array blocks{MemoryBlock{*services_.memory}, MemoryBlock{*services_.memory}};
    bool anyToFetch = false;
    for (std::size_t i = 0; i < count; ++i) {
      if (entries[i].ulValueLen > reader.attributes[i].largest) continue;
      if (!blocks[i].allocate(entries[i].ulValueLen)) return CKR_HOST_MEMORY;
      entries[i].pValue = blocks[i].data();
      anyToFetch = true;
    }
    if (anyToFetch) {
      const CK_RV rv = pkcs11_getObjsAttriValue(session, object, entries.data(), count, count, reader.limit);
      for (std::size_t i = 0; i < count; ++i) blocks[i].reclaim(entries[i].pValue);
      if (rv != CKR_OK) return rv;
    }

    // Oddity: a missing length is only noticed after all the reading.
    if (!ioLen) return CKR_ARGUMENTS_BAD;
    const CK_ULONG length = entries[count - 1].ulValueLen;
    const MemoryBlock& value = blocks[count - 1];
    if (outValue) {
      if (!value.data() || length > capacity) return CKR_BUFFER_TOO_SMALL;
      std::memcpy(outValue, value.data(), length);
    }
    *ioLen = length;
    return CKR_OK;
  });
}

CK_RV P11Bridge::pkcs11_getRSAKeyModulus(CK_SESSION_HANDLE session, CK_OBJECT_HANDLE key, CK_BYTE* outValue,
                                         CK_ULONG* ioLen) noexcept {
  static constexpr std::array<ValueReader::Attribute, 1> kAttributes{{{CKA_MODULUS, kModulus.largest}}};
  static constexpr ValueReader kReader{BridgeOperation::pkcs11_getRSAKeyModulus, kAttributes,
                                       kModulus.largest + 1};
  return readValue(kReader, session, key, outValue, ioLen);
}

CK_RV P11Bridge::pkcs11_getECPublicKey(CK_SESSION_HANDLE session, CK_OBJECT_HANDLE key, CK_BYTE* outValue,
                                       CK_ULONG* ioLen) noexcept {
  static constexpr std::array<ValueReader::Attribute, 2> kAttributes{
      {{CKA_EC_PARAMS, kLargestFetchedParameters}, {CKA_EC_POINT, kPoint.refusedAbove}}};
  // Oddity: a point between the two limits gets a buffer but exceeds the limit of the read.
  static constexpr ValueReader kReader{BridgeOperation::pkcs11_getECPublicKey, kAttributes, kPoint.largest};
  return readValue(kReader, session, key, outValue, ioLen);
}

CK_RV P11Bridge::pkcs11_getCertificate(CK_SESSION_HANDLE session, CK_OBJECT_HANDLE certificate,
                                       CK_BYTE* outValue, CK_ULONG* ioLen) noexcept {
  static constexpr std::array<ValueReader::Attribute, 1> kAttributes{
      {{CKA_VALUE, kLargestFetchedCertificate}}};
  static constexpr ValueReader kReader{BridgeOperation::pkcs11_getCertificate, kAttributes,
                                       kCertificateValue.largest};
  return readValue(kReader, session, certificate, outValue, ioLen);
}

CK_RV P11Bridge::pkcs11_getCorrespondingPrivateKey(CK_SESSION_HANDLE session, CK_OBJECT_HANDLE object,
                                                   CK_OBJECT_HANDLE* ioKey) noexcept {
  return operation(BridgeOperation::pkcs11_getCorrespondingPrivateKey, [&]() -> CK_RV {
    if (!ckFunc()) return CKR_CRYPTOKI_NOT_INITIALIZED;
    if (isNoHandle(session)) return CKR_ARGUMENTS_BAD;
    if (!ioKey || *ioKey == kNoHandle) return CKR_ARGUMENTS_BAD;

    std::array<CK_BYTE, kKeyIdCapacity> id{};
    CK_ATTRIBUTE idEntry{CKA_ID, id.data(), id.size()};
    if (CK_RV rv = pkcs11_getObjsAttriValue(session, object, &idEntry, 1, 1, kKeyIdCapacity); rv != CKR_OK) {
      return rv;
    }
    if (idEntry.ulValueLen == 0 || idEntry.ulValueLen >= kKeyIdCapacity) return CKR_KEY_HANDLE_INVALID;

    CK_OBJECT_CLASS objectClass = CKO_PRIVATE_KEY;
    CK_BBOOL onToken = CK_TRUE;
    std::array filter{attribute(CKA_CLASS, objectClass), attribute(CKA_TOKEN, onToken), idEntry};
    CK_ULONG numFound = 0;
    if (CK_RV rv = pkcs11_FindObjects(session, filter.data(), filter.size(), ioKey, &numFound, 1);
        rv != CKR_OK) {
      return rv;
    }
    return numFound == 1 ? CKR_OK : CKR_KEY_HANDLE_INVALID;
  });
}

CK_RV P11Bridge::GetCertBlobByLabel(CK_SESSION_HANDLE session, const CK_BYTE* label, CK_ULONG labelLen,
                                    CK_BYTE* outValue, CK_ULONG* ioLen) noexcept {
  return operation(BridgeOperation::GetCertBlobByLabel, [&]() -> CK_RV {
    const CK_ULONG capacity = ioLen ? *ioLen : 0;
    setLength(ioLen, 0);
    // Oddity: the arguments are checked before the function list.
    if (!label || labelLen == 0 || !ioLen) return CKR_ARGUMENTS_BAD;
    if (!ckFunc()) return CKR_CRYPTOKI_NOT_INITIALIZED;
    if (isNoHandle(session)) return CKR_ARGUMENTS_BAD;

    CK_OBJECT_CLASS objectClass = CKO_CERTIFICATE;
    std::array filter{attribute(CKA_CLASS, objectClass),
                      CK_ATTRIBUTE{CKA_LABEL, const_cast<CK_BYTE*>(label), labelLen}};  // only read
    std::array<CK_OBJECT_HANDLE, kMaxLabelMatches> found{};
    CK_ULONG numFound = 0;
    if (pkcs11_FindObjects(session, filter.data(), filter.size(), found.data(), &numFound, found.size()) !=
        CKR_OK) {
      return CKR_FUNCTION_FAILED;
    }
    if (numFound == 0) return CKR_DATA_INVALID;

    CK_ATTRIBUTE value{CKA_VALUE, outValue, outValue ? capacity : 0};
    const auto read = [&] {
      return pkcs11_getObjsAttriValue(session, found[0], &value, 1, 1, kCertificateValue.largest);
    };
    if (CK_RV rv = read(); rv != CKR_OK) return rv;
    if (!outValue && value.ulValueLen <= kLargestFetchedCertificate) {
      MemoryBlock block{*services_.memory};
      if (!block.allocate(value.ulValueLen)) return CKR_HOST_MEMORY;
      value.pValue = block.data();
      if (CK_RV rv = read(); rv != CKR_OK) return rv;
    }
    *ioLen = value.ulValueLen;
    return CKR_OK;
  });
}

}  // namespace mirel
