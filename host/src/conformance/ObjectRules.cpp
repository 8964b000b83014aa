#include "conformance/ObjectRules.h"

#include <algorithm>
#include <cstring>
#include <initializer_list>
#include <map>

#include "CodeMeaning.h"
#include "bridge/CardRules.h"
#include "host/Display.h"
#include "host/KeyChoice.h"

namespace mirel {
namespace {

using enum RuleID;
using ByteVector = std::vector<CK_BYTE>;

constexpr CK_ULONG kNoLimit = CK_UNAVAILABLE_INFORMATION - 1;
constexpr CK_ULONG kLongestRead = 4096;  // bytes
constexpr std::size_t kMostToldFaults = 5;

/// A length that the rules know.
struct LengthRule {
  RuleID rule;
  CK_OBJECT_CLASS objectClass;
  CK_ATTRIBUTE_TYPE type;
  const char* name;
  CK_ULONG most;
  std::optional<CK_KEY_TYPE> ofKeys{};  ///< nothing: of all; one that lacks the value is for CR-14
};

constexpr LengthRule kLengths[] = {
    {kCertificateValueLen, CKO_CERTIFICATE, CKA_VALUE, "CKA_VALUE",
     ruleOf(CKO_CERTIFICATE, CKA_VALUE).largest},
    {kCertificateNameLen, CKO_CERTIFICATE, CKA_LABEL, "CKA_LABEL",
     ruleOf(CKO_CERTIFICATE, CKA_LABEL).largest},
    {kCertificateNameLen, CKO_CERTIFICATE, CKA_ID, "CKA_ID", ruleOf(CKO_CERTIFICATE, CKA_ID).largest},
    {kPublicKeyNameLen, CKO_PUBLIC_KEY, CKA_LABEL, "CKA_LABEL", ruleOf(CKO_PUBLIC_KEY, CKA_LABEL).largest},
    {kPublicKeyNameLen, CKO_PUBLIC_KEY, CKA_ID, "CKA_ID", ruleOf(CKO_PUBLIC_KEY, CKA_ID).largest},
    {kSearchedIDLen, CKO_PUBLIC_KEY, CKA_ID, "CKA_ID", kMaxSearchedIDLen},
    {kModulusLen, CKO_PUBLIC_KEY, CKA_MODULUS, "CKA_MODULUS", ruleOf(CKO_PUBLIC_KEY, CKA_MODULUS).largest,
     CKK_RSA},
    {kPointLen, CKO_PUBLIC_KEY, CKA_EC_POINT, "CKA_EC_POINT", ruleOf(CKO_PUBLIC_KEY, CKA_EC_POINT).largest,
     CKK_EC},
    {kParamsLen, CKO_PUBLIC_KEY, CKA_EC_PARAMS, "CKA_EC_PARAMS", kNoLimit, CKK_EC},
};

/// Gathers what objects say about one rule. The first faults are told, else the first that was not read.
class Gathered {
 public:
  void good() { ++numGood_; }
  void fault(const std::string& text) {
    if (++numFaults_ <= kMostToldFaults) faults_ += (faults_.empty() ? "" : "; ") + text;
  }
  void unread(std::string text) {
    if (unread_.empty()) unread_ = std::move(text);
  }

  void tell(RuleID rule, const char* noun, RuleResults& results) const {
    if (numFaults_ > kMostToldFaults)
      return results.fail(rule, faults_ + "; and " + std::to_string(numFaults_ - kMostToldFaults) + " more");
    if (numFaults_ > 0) return results.fail(rule, faults_);
    if (!unread_.empty()) return results.unknown(rule, unread_);
    if (numGood_ == 0) return results.skip(rule, std::string{"there is no such "} + noun);
    results.pass(rule, std::to_string(numGood_) + " " + noun + (numGood_ == 1 ? "" : "s") + " looked at");
  }

 private:
  std::size_t numGood_ = 0;
  std::size_t numFaults_ = 0;
  std::string faults_;
  std::string unread_;
};

/// What the module says of the length of a value.
struct Size {
  CK_RV rv = CKR_OK;
  CK_ULONG length = 0;  ///< 0 where there is none

  [[nodiscard]] bool isUnread() const {
    return rv != CKR_OK && rv != CKR_ATTRIBUTE_TYPE_INVALID && rv != CKR_ATTRIBUTE_SENSITIVE;
  }
};

class CardObjects {
 public:
  CardObjects(const P11Bridge& bridge, CK_SESSION_HANDLE session) : bridge_{bridge}, session_{session} {}

  /// All of a class, and one more than are listed where there are more; an error text otherwise.
  [[nodiscard]] std::vector<CK_OBJECT_HANDLE> find(CK_OBJECT_CLASS objectClass, std::string& outError) const {
    std::vector<CK_OBJECT_HANDLE> handles;
    const auto answer = bridge_.inspectObjects(session_, objectClass, handles, kMaxListedObjects + 1);
    if (answer.result != CKR_OK) outError = answerText({answer.function, answer.result});
    return handles;
  }

  [[nodiscard]] Size sizeOf(CK_OBJECT_HANDLE object, CK_ATTRIBUTE_TYPE type) const {
    CK_ATTRIBUTE entry{type, nullptr, 0};
    const CK_RV rv = bridge_.inspectAttributes(session_, object, {&entry, 1});
    const bool isThere = rv == CKR_OK && entry.ulValueLen != CK_UNAVAILABLE_INFORMATION;
    return {rv, isThere ? entry.ulValueLen : 0};
  }

  /// Empty where there is none; `outRv` has the answer.
  [[nodiscard]] ByteVector valueOf(CK_OBJECT_HANDLE object, CK_ATTRIBUTE_TYPE type, CK_RV& outRv) const {
    const Size size = sizeOf(object, type);
    outRv = size.rv;
    if (size.length == 0 || size.length > kLongestRead) return {};
    ByteVector value(size.length);
    CK_ATTRIBUTE entry{type, value.data(), size.length};
    outRv = bridge_.inspectAttributes(session_, object, {&entry, 1});
    if (outRv != CKR_OK || entry.ulValueLen > value.size()) return {};
    value.resize(entry.ulValueLen);
    return value;
  }

  /// Nothing where that is no such value or none can be read.
  template <typename Number>
  [[nodiscard]] std::optional<Number> numberOf(CK_OBJECT_HANDLE object, CK_ATTRIBUTE_TYPE type,
                                               CK_RV& outRv) const {
    const ByteVector value = valueOf(object, type, outRv);
    if (value.size() != sizeof(Number)) return std::nullopt;
    Number number{};
    std::memcpy(&number, value.data(), sizeof number);
    return number;
  }

  /// The answer to a request with that room, of whose bytes all behind `room` must stay.
  [[nodiscard]] CK_RV readInto(CK_OBJECT_HANDLE object, CK_ATTRIBUTE_TYPE type, CK_ULONG room,
                               bool& outWroteBehind) const {
    constexpr CK_BYTE kUntouched = 0xA5;
    ByteVector buffer(kLongestRead + room, kUntouched);
    CK_ATTRIBUTE entry{type, buffer.data(), room};
    const CK_RV rv = bridge_.inspectAttributes(session_, object, {&entry, 1});
    outWroteBehind = std::any_of(buffer.begin() + static_cast<std::ptrdiff_t>(room), buffer.end(),
                                 [](CK_BYTE byte) { return byte != kUntouched; });
    return rv;
  }

 private:
  const P11Bridge& bridge_;
  CK_SESSION_HANDLE session_;
};

std::string nameOf(CK_OBJECT_CLASS objectClass, std::size_t index) {
  return std::string{objectClass == CKO_CERTIFICATE ? "certificate" : "public key"} + " number " +
         std::to_string(index + 1);
}

/// Of those that each object needs.
const char* attributeName(CK_ATTRIBUTE_TYPE type) noexcept {
  switch (type) {
    case CKA_LABEL: return "CKA_LABEL";
    case CKA_ID: return "CKA_ID";
    case CKA_VALUE: return "CKA_VALUE";
    default: return "CKA_KEY_TYPE";
  }
}

std::string attributeAnswer(CK_RV rv) { return answerText({"C_GetAttributeValue", rv}); }

/// The rules about the objects of one class.
class ObjectTest {
 public:
  ObjectTest(const CardObjects& objects, std::map<RuleID, Gathered>& gathered)
      : objects_{objects}, gathered_{gathered} {}

  void test(CK_OBJECT_CLASS objectClass, RuleID countRule, std::initializer_list<CK_ATTRIBUTE_TYPE> needed,
            RuleResults& results) {
    std::string error;
    const auto handles = objects_.find(objectClass, error);
    if (!error.empty()) {
      results.unknown(countRule, error);
      for (auto& [rule, gathered] : gathered_) gathered.unread(error);
    } else {
      const bool fits = handles.size() <= kMaxListedObjects;
      results.set(countRule, fits ? RuleVerdict::kPass : RuleVerdict::kFail,
                  fits ? "there are " + std::to_string(handles.size())
                       : "there are more than " + std::to_string(kMaxListedObjects));
    }
    for (std::size_t i = 0; i < handles.size(); ++i) {
      const Subject subject{objectClass, handles[i], nameOf(objectClass, i)};
      testNeeded(subject, needed);
      const auto keyType = objectClass == CKO_PUBLIC_KEY ? testKeyType(subject) : std::nullopt;
      for (const LengthRule& rule : kLengths) {
        if (rule.objectClass == objectClass && (!rule.ofKeys || rule.ofKeys == keyType))
          testLength(subject, rule);
      }
      testToken(subject);
    }
    testSmallBuffer(objectClass, handles);
  }

 private:
  struct Subject {
    CK_OBJECT_CLASS objectClass;
    CK_OBJECT_HANDLE handle;
    std::string name;
  };

  void testNeeded(const Subject& subject, std::initializer_list<CK_ATTRIBUTE_TYPE> needed) {
    for (const CK_ATTRIBUTE_TYPE type : needed) {
      const Size size = objects_.sizeOf(subject.handle, type);
      if (size.isUnread()) {
        // A device may have failed, but these two mean the null pointer.
        const bool isRefusal = size.rv == CKR_BUFFER_TOO_SMALL || size.rv == CKR_ARGUMENTS_BAD;
        const std::string text = subject.name + ": with a null pointer " + attributeAnswer(size.rv);
        if (isRefusal) gathered_[kSizeQuery].fault(text);
        gathered_[kSizeQuery].unread(text);
        gathered_[kAttributes].unread(text);
        continue;
      }
      if (size.length == 0) {
        gathered_[kAttributes].fault(subject.name + " lacks " + attributeName(type));
        continue;
      }
      gathered_[kAttributes].good();
      testSizeQuery(subject, type, size.length);
    }
  }

  void testSizeQuery(const Subject& subject, CK_ATTRIBUTE_TYPE type, CK_ULONG length) {
    if (length > kLongestRead) return;
    CK_RV rv = CKR_OK;
    const ByteVector value = objects_.valueOf(subject.handle, type, rv);
    if (rv == CKR_BUFFER_TOO_SMALL || (rv == CKR_OK && value.size() != length)) {
      return gathered_[kSizeQuery].fault(subject.name + ": another length than that of the value (" +
                                         std::to_string(length) + ")");
    }
    if (rv != CKR_OK) return gathered_[kSizeQuery].unread(subject.name + ": " + attributeAnswer(rv));
    gathered_[kSizeQuery].good();
  }

  [[nodiscard]] std::optional<CK_KEY_TYPE> testKeyType(const Subject& subject) {
    CK_RV rv = CKR_OK;
    const auto type = objects_.numberOf<CK_KEY_TYPE>(subject.handle, CKA_KEY_TYPE, rv);
    Gathered& gathered = gathered_[kKeyTypes];
    if (!type) {
      const std::string text = subject.name + ": " + attributeAnswer(rv);
      gathered.unread(text);
      // Whether these are about the key is not known.
      for (const RuleID rule : {kModulusLen, kPointLen, kParamsLen}) gathered_[rule].unread(text);
    } else if (*type == CKK_RSA || *type == CKK_EC) {
      gathered.good();
    } else {
      gathered.fault(subject.name + " has the key type " + std::to_string(*type));
    }
    return type;
  }

  void testLength(const Subject& subject, const LengthRule& rule) {
    const Size size = objects_.sizeOf(subject.handle, rule.type);
    Gathered& gathered = gathered_[rule.rule];
    const std::string text = subject.name + ": " + rule.name;
    if (size.isUnread()) return gathered.unread(subject.name + ": " + attributeAnswer(size.rv));
    if (size.length == 0) {
      if (rule.ofKeys) gathered.fault(text + " is empty, or cannot be read");
      return;  // else another rule tells
    }
    if (size.length > rule.most)
      return gathered.fault(text + " has " + std::to_string(size.length) + " bytes");
    gathered.good();
  }

  void testToken(const Subject& subject) {
    CK_RV rv = CKR_OK;
    const auto onToken = objects_.numberOf<CK_BBOOL>(subject.handle, CKA_TOKEN, rv);
    Gathered& gathered = gathered_[kPublicObjects];
    if (!onToken) return gathered.unread(subject.name + ": CKA_TOKEN cannot be read: " + attributeAnswer(rv));
    if (*onToken == CK_FALSE) return gathered.fault(subject.name + " is no token object");
    gathered.good();
  }

  /// Of the first object of the class: its longest value, one byte short.
  void testSmallBuffer(CK_OBJECT_CLASS objectClass, const std::vector<CK_OBJECT_HANDLE>& handles) {
    if (handles.empty()) return;
    const CK_ATTRIBUTE_TYPE type = objectClass == CKO_CERTIFICATE ? CKA_VALUE : CKA_LABEL;
    const Size size = objects_.sizeOf(handles.front(), type);
    Gathered& gathered = gathered_[kSmallBuffer];
    const std::string name = nameOf(objectClass, 0);
    if (size.isUnread()) return gathered.unread(name + ": " + attributeAnswer(size.rv));
    if (size.length < 2 || size.length > kLongestRead) return;
    bool wroteBehind = false;
    const CK_RV rv = objects_.readInto(handles.front(), type, size.length - 1, wroteBehind);
    const std::string text = name + ": for " + std::to_string(size.length) + " bytes and room for one less ";
    if (wroteBehind) return gathered.fault(text + "it wrote behind the buffer");
    if (rv == CKR_BUFFER_TOO_SMALL) return gathered.good();
    if (rv == CKR_OK) return gathered.fault(text + attributeAnswer(rv));
    gathered.unread(text + attributeAnswer(rv));
  }

  const CardObjects& objects_;
  std::map<RuleID, Gathered>& gathered_;
};

/// What the objects are gathered for, and what is counted.
struct GatheredRule {
  RuleID rule;
  const char* noun;
};

constexpr GatheredRule kGathered[] = {
    {kPublicObjects, "object"},     {kAttributes, "value"},
    {kKeyTypes, "public key"},      {kCertificateValueLen, "certificate"},
    {kCertificateNameLen, "value"}, {kPublicKeyNameLen, "value"},
    {kSearchedIDLen, "value"},      {kModulusLen, "value"},
    {kPointLen, "value"},           {kParamsLen, "value"},
    {kSizeQuery, "value"},          {kSmallBuffer, "value"},
};

}  // namespace

void testObjects(const P11Bridge& bridge, CK_SLOT_ID slotID, RuleResults& results) {
  CK_SESSION_HANDLE session = 0;
  std::map<RuleID, Gathered> gathered;
  for (const GatheredRule& rule : kGathered) gathered[rule.rule];
  if (const CK_RV rv = bridge.openInspection(slotID, session); rv != CKR_OK) {
    const std::string text = answerText({"C_OpenSession", rv});
    for (auto& [rule, one] : gathered) one.unread(text);
    for (const RuleID rule : {kNumPublicKeys, kNumCertificates}) results.unknown(rule, text);
  } else {
    const CardObjects objects{bridge, session};
    ObjectTest test{objects, gathered};
    test.test(CKO_PUBLIC_KEY, kNumPublicKeys, {CKA_LABEL, CKA_ID, CKA_KEY_TYPE}, results);
    test.test(CKO_CERTIFICATE, kNumCertificates, {CKA_LABEL, CKA_ID, CKA_VALUE}, results);
    bridge.closeInspection(session);
  }
  for (const auto& [rule, noun] : kGathered) gathered[rule].tell(rule, noun, results);
}

void testKeyObjects(const P11Bridge& bridge, const InsertedCard& card, RuleResults& results) {
  constexpr RuleID kRules[] = {kModulusReadable, kSigningPrivateKey, kPrivateModulus};
  std::map<RuleID, Gathered> gathered;
  CK_SESSION_HANDLE session = 0;
  if (const CK_RV rv = bridge.openInspection(card.reader.slotID, session); rv != CKR_OK) {
    for (const RuleID rule : kRules) results.unknown(rule, answerText({"C_OpenSession", rv}));
    return;
  }
  const CardObjects objects{bridge, session};
  std::string publicError;
  std::string privateError;
  const auto publicKeys = objects.find(CKO_PUBLIC_KEY, publicError);
  const auto privateKeys = objects.find(CKO_PRIVATE_KEY, privateError);
  /// The object with that ID; all-ones where there is none.
  const auto withID = [&](const auto& handles, const Text& id, std::string& outError) {
    for (const CK_OBJECT_HANDLE handle : handles) {
      CK_RV rv = CKR_OK;
      if (Text::fromBytes(objects.valueOf(handle, CKA_ID, rv)) == id) return handle;
      if (rv != CKR_OK && outError.empty()) outError = attributeAnswer(rv);
    }
    return CK_UNAVAILABLE_INFORMATION;
  };
  const auto testModulus = [&](RuleID rule, CK_OBJECT_HANDLE handle, const std::string& name) {
    CK_RV rv = CKR_OK;
    const bool isThere = !objects.valueOf(handle, CKA_MODULUS, rv).empty();
    if (isThere) return gathered[rule].good();
    const std::string text = name + ": " + attributeAnswer(rv);
    const bool isAnswer = rv == CKR_OK || rv == CKR_ATTRIBUTE_TYPE_INVALID || rv == CKR_ATTRIBUTE_SENSITIVE;
    isAnswer ? gathered[rule].fault(text) : gathered[rule].unread(text);
  };
  for (const PublishedKey& key : keysOf(card)) {
    if (key.keyType != CertificateKeyType::kRSA || !(key.canSign || key.canDecrypt)) continue;
    const std::string name = "key " + idText(key.objectID);
    if (key.canSign) {
      const auto handle = withID(publicKeys, key.objectID, publicError);
      if (handle != CK_UNAVAILABLE_INFORMATION) {
        testModulus(kModulusReadable, handle, name);
      } else {
        publicError.empty() ? gathered[kModulusReadable].fault(name + " is not found after the login")
                            : gathered[kModulusReadable].unread(publicError);
      }
    }
    const RuleID rule = key.canSign ? kSigningPrivateKey : kPrivateModulus;
    const auto handle = withID(privateKeys, key.objectID, privateError);
    if (handle == CK_UNAVAILABLE_INFORMATION) {
      privateError.empty() ? gathered[rule].fault(name + ": no private key has its ID")
                           : gathered[rule].unread(privateError);
      continue;
    }
    if (!key.canSign) {
      testModulus(rule, handle, name);
      continue;
    }
    CK_RV rv = CKR_OK;
    const auto onToken = objects.numberOf<CK_BBOOL>(handle, CKA_TOKEN, rv);
    if (!onToken) {
      gathered[rule].unread(name + ": " + attributeAnswer(rv));
    } else if (*onToken == CK_FALSE) {
      gathered[rule].fault(name + ": its private key is no token object");
    } else {
      gathered[rule].good();
    }
  }
  bridge.closeInspection(session);
  gathered[kModulusReadable].tell(kModulusReadable, "RSA signing key", results);
  gathered[kSigningPrivateKey].tell(kSigningPrivateKey, "RSA signing key", results);
  gathered[kPrivateModulus].tell(kPrivateModulus, "RSA decrypting key", results);
}

}  // namespace mirel
