#include "faults/FaultyCard.h"

#include <openssl/core_names.h>
#include <openssl/evp.h>
#include <sys/mman.h>

#include <algorithm>
#include <map>
#include <new>
#include <stdexcept>
#include <string_view>
#include <tuple>

#include "bridge/CardRules.h"
#include "platform/CertificateBuilder.h"
#include "support/KeptKeys.h"
#include "support/ScriptedModule.h"

namespace mirel::test {
namespace {

using List = CK_FUNCTION_LIST;

Record& sharedRecord() {
  void* memory = mmap(nullptr, sizeof(Record), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  if (memory == MAP_FAILED) throw std::bad_alloc{};
  return *new (memory) Record;
}

Record* theRecord = nullptr;
Fault theFault;
const SoftwareKey* cardKey = nullptr;

// ---- The numbers that calls report ----

/// A number where the caller finds it, and what it counts.
struct Reported {
  CK_ULONG* number = nullptr;
  CK_BYTE* data = nullptr;  // with room for `seen.room` of them, or null
  std::size_t unit = 1;
  SeenNumber seen{};
};

using AllReported = std::vector<Reported>;

void add(AllReported& all, CK_ULONG* number, void* data = nullptr, std::size_t unit = 1,
         std::array<CK_ULONG, 2> limits = {}) {
  if (!number || all.size() == kMostNumbers) return;
  all.push_back({number, static_cast<CK_BYTE*>(data), unit, {0, data ? *number : 0, limits}});
}

std::array<CK_ULONG, 2> limitsOf(CK_ATTRIBUTE_TYPE type) {
  switch (type) {
    case CKA_LABEL:
    case CKA_ID: return {256, 2000};
    case CKA_MODULUS: return {639, 512};
    case CKA_VALUE: return {2000, 0};
    default: return {};
  }
}

/// Before the call: where its numbers will be. Functions that report none have nothing here.
template <auto Function, typename... Args>
AllReported reportedBy(Args... args) {
  constexpr std::string_view kName = kCryptokiNameOf<Function>;
  [[maybe_unused]] const std::tuple given{args...};
  AllReported all;
  if constexpr (kName == "C_GetSlotList") {
    const auto [present, list, count] = given;
    add(all, count, list, sizeof(CK_SLOT_ID), {10, kMaxSlots});
    if (list && count && *count > 0) add(all, list);
  } else if constexpr (kName == "C_GetSlotInfo") {
    add(all, &std::get<1>(given)->flags);
  } else if constexpr (kName == "C_GetTokenInfo") {
    CK_TOKEN_INFO* info = std::get<1>(given);
    for (CK_ULONG* number :
         {&info->flags, &info->ulMaxSessionCount, &info->ulSessionCount, &info->ulMaxRwSessionCount,
          &info->ulRwSessionCount, &info->ulMaxPinLen, &info->ulMinPinLen, &info->ulTotalPublicMemory,
          &info->ulFreePublicMemory, &info->ulTotalPrivateMemory, &info->ulFreePrivateMemory})
      add(all, number);
  } else if constexpr (kName == "C_GetMechanismList") {
    const auto [slot, list, count] = given;
    add(all, count, list, sizeof(CK_MECHANISM_TYPE));
  } else if constexpr (kName == "C_GetMechanismInfo") {
    CK_MECHANISM_INFO* info = std::get<2>(given);
    for (CK_ULONG* number : {&info->ulMinKeySize, &info->ulMaxKeySize, &info->flags}) add(all, number);
  } else if constexpr (kName == "C_GetSessionInfo") {
    CK_SESSION_INFO* info = std::get<1>(given);
    for (CK_ULONG* number : {&info->slotID, &info->state, &info->flags, &info->ulDeviceError})
      add(all, number);
  } else if constexpr (kName == "C_OpenSession") {
    add(all, std::get<4>(given));
  } else if constexpr (kName == "C_FindObjects") {
    const auto [session, objects, most, count] = given;
    add(all, count, objects, sizeof(CK_OBJECT_HANDLE), {kMaxListedObjects, kMaxFoundObjects});
    if (!all.empty()) all.back().seen.room = most;
    if (objects && most > 0) add(all, objects);
  } else if constexpr (kName == "C_GetAttributeValue") {
    const auto [session, object, attributes, count] = given;
    for (CK_ULONG i = 0; attributes && i < count; ++i)
      add(all, &attributes[i].ulValueLen, attributes[i].pValue, 1, limitsOf(attributes[i].type));
  } else if constexpr (kName == "C_Sign" || kName == "C_Decrypt") {
    add(all, std::get<4>(given), std::get<3>(given), 1, {256, 2000});
  } else if constexpr (kName == "C_DeriveKey") {
    add(all, std::get<5>(given));
  }
  return all;
}

/// Reports `value`; what it claims beyond the truth is filled, as far as there is room.
void lie(Reported& reported, CK_ULONG value) {
  const auto& [real, room, limits] = reported.seen;
  if (reported.data && value > real && real <= room) {
    const CK_ULONG filled = std::min(value, room);
    std::fill(reported.data + real * reported.unit, reported.data + filled * reported.unit, CK_BYTE{0xEE});
  }
  *reported.number = value;
  theRecord->fired = true;
}

// ---- The card's cryptography ----

/// The length of the data is asked for without them.
CK_RV withRawRsa(CK_RV rv, const CK_BYTE* data, CK_ULONG dataLen, CK_BYTE* out) {
  if (rv != CKR_OK || !out) return rv;
  Value block(cardKey->blockSize() - std::min<std::size_t>(dataLen, cardKey->blockSize()), 0x00);
  block.insert(block.end(), data, data + dataLen);
  const Value made = cardKey->rawPrivate(block);
  std::copy(made.begin(), made.end(), out);
  return made.empty() ? CKR_DATA_INVALID : CKR_OK;
}

template <auto Function, typename Real, typename... Args>
CK_RV honestAnswer(Real real, Args... args) {
  constexpr std::string_view kName = kCryptokiNameOf<Function>;
  [[maybe_unused]] const std::tuple given{args...};
  if constexpr (kName == "C_Sign") {
    const auto [session, data, dataLen, out, outLen] = given;
    return withRawRsa(real(args...), data, dataLen, out);
  } else if constexpr (kName == "C_Decrypt") {
    const auto [session, data, dataLen, out, outLen] = given;
    Value block = cardKey->rawPrivate(Value(data, data + dataLen));
    return real(session, block.data(), block.size(), out, outLen);
  } else if constexpr (kName == "C_Login") {
    const CK_RV rv = real(args...);
    if (rv == CKR_OK) theRecord->loggedIn = true;
    return rv;
  } else {
    return real(args...);
  }
}

bool isToFailAt(std::size_t position) {
  if (theFault.kind != Fault::Kind::kCode) return false;
  return theFault.times == Times::kOnce ? position == theFault.position : position >= theFault.position;
}

/// As a C_Sign or C_Decrypt that fails: without room for the length the real one does nothing else.
template <typename Real>
void endOperation(Real real, CK_SESSION_HANDLE session, CK_BYTE* data, CK_ULONG dataLen, CK_BYTE* out,
                  CK_ULONG*) {
  (void)real(session, data, dataLen, out, nullptr);
}

template <auto Function, typename Real, typename... Args>
CK_RV answer(Real real, Args... args) {
  constexpr std::string_view kName = kCryptokiNameOf<Function>;
  const std::size_t position = scriptedModule().calls().size() - 1;
  if (position >= kMostCalls) return honestAnswer<Function>(real, args...);
  theRecord->numCalls = position + 1;
  SeenCall& call = theRecord->calls[position];
  call.function = functionPosition(kName);
  if (isToFailAt(position)) {
    theRecord->fired = true;
    if constexpr (kName == "C_Sign" || kName == "C_Decrypt") endOperation(real, args...);
    return theFault.code;
  }
  AllReported all = reportedBy<Function>(args...);
  const CK_RV rv = honestAnswer<Function>(real, args...);
  if (rv != CKR_OK) return rv;
  for (Reported& reported : all) {
    reported.seen.real = *reported.number;
    call.numbers[call.numNumbers++] = reported.seen;
  }
  const bool isMeant = theFault.kind == Fault::Kind::kNumber && theFault.position == position &&
                       theFault.function == kName && theFault.number < all.size();
  if (isMeant) lie(all[theFault.number], theFault.value);
  return rv;
}

template <auto... Functions>
void hookAll(Script& script, FunctionPack<Functions...>) {
  (script.hook<Functions>([](auto real, auto... args) { return answer<Functions>(real, args...); }), ...);
}

/// Of a key on P-256, as a module gives it.
Value wrappedPoint(EVP_PKEY* key) {
  Value point{0x04, 0x41};
  point.resize(67);
  std::size_t size = 0;
  if (EVP_PKEY_get_octet_string_param(key, OSSL_PKEY_PARAM_PUB_KEY, point.data() + 2, point.size() - 2,
                                      &size) != 1)
    throw std::runtime_error{"the key has no point"};
  return point;
}

/// The same one each time, so that runs can be compared.
const ByteVector& certificateFor(EVP_PKEY* key, const std::string& subject, const ByteVector& keyUsage) {
  static std::map<std::pair<std::string, ByteVector>, ByteVector> made;
  ByteVector& der = made[{subject, keyUsage}];
  if (!der.empty()) return der;
  // Not every subject is one to OpenSSL.
  const std::string stand(subject.size(), '~');
  der = makeCertificate({.key = key, .subject = {{"CN", V_ASN1_UTF8STRING, stand}}, .keyUsages = {keyUsage}});
  std::copy(subject.begin(), subject.end(), std::search(der.begin(), der.end(), stand.begin(), stand.end()));
  return der;
}

// ---- The card's texts ----

constexpr std::array kPlaces{"the slot's description",
                             "the slot's manufacturer",
                             "the token's label",
                             "the token's maker",
                             "the token's model",
                             "the token's serial number",
                             "the library's maker",
                             "the library's description",
                             "the label of each key",
                             "the label of each certificate",
                             "the subject of each certificate"};
constexpr std::size_t kSubject = kPlaces.size() - 1;

}  // namespace

FaultyCard::FaultyCard() : key_{SoftwareKey::rsa(2048, "faults")}, record_{sharedRecord()} {
  theRecord = &record_;
  cardKey = &key_;
}

std::span<const char* const> FaultyCard::textPlaces() { return kPlaces; }

void FaultyCard::makeCard(const std::string& subject) {
  static const KeyHolder rsa{keptRsaKey(2048, "faults")};
  static const KeyHolder curve = makeEcKey("P-256");
  Script& script = scriptedModule();
  script.card().pin = kCardPin;
  script.card().objects.clear();
  const auto addKey = [&](CK_BYTE id, const char* label, EVP_PKEY* key, const ByteVector& keyUsage) {
    const bool isRsa = key == rsa.get();
    const Value idBytes{id};
    const Value text = bytesOf(label);
    script.addObject(isRsa ? rsaPublicKey(idBytes, text, key_.modulus())
                           : ecPublicKey(idBytes, text, p256Params(), wrappedPoint(key)));
    script.addObject(isRsa ? rsaPrivateKey(idBytes, text, key_.modulus())
                           : ecPrivateKey(idBytes, text, p256Params()));
    script.addObject(certificate(idBytes, text, certificateFor(key, subject, keyUsage)));
  };
  addKey(1, "Signer", rsa.get(), {0x03, 0x02, 0x07, 0x80});
  addKey(2, "Vault", rsa.get(), {0x03, 0x02, 0x05, 0x20});
  addKey(3, "Agree", curve.get(), {0x03, 0x02, 0x03, 0x08});
}

void FaultyCard::replaceText(std::size_t place, const std::string& text) {
  Script& script = scriptedModule();
  CK_TOKEN_INFO& token = script.card().info;
  const auto label = [&](CK_OBJECT_CLASS objectClass) {
    for (auto& [handle, object] : script.card().objects) {
      if (object.attributes[CKA_CLASS] == ulongValue(objectClass))
        object.attributes[CKA_LABEL] = bytesOf(text);
    }
  };
  switch (place) {
    case 0: return setField(script.slot().info.slotDescription, text);
    case 1: return setField(script.slot().info.manufacturerID, text);
    case 2: return setField(token.label, text);
    case 3: return setField(token.manufacturerID, text);
    case 4: return setField(token.model, text);
    case 5: return setField(token.serialNumber, text);
    case 6:
    case 7:
      return script.hook<&List::C_GetInfo>([place, text](auto real, CK_INFO* info) {
        const CK_RV rv = real(info);
        if (rv != CKR_OK) return rv;
        if (place == 6) setField(info->manufacturerID, text);
        if (place == 7) setField(info->libraryDescription, text);
        return rv;
      });
    case 8: label(CKO_PUBLIC_KEY); return label(CKO_PRIVATE_KEY);
    case 9: return label(CKO_CERTIFICATE);
    default: return;
  }
}

void FaultyCard::play(const Fault& fault) {
  Script& script = scriptedModule();
  script.reset();
  hookAll(script, AllFunctions{});
  const bool isText = fault.kind == Fault::Kind::kText;
  makeCard(isText && fault.place == kSubject ? fault.text : "Holder");
  record_.numCalls = 0;
  record_.fired = false;
  record_.loggedIn = false;
  std::for_each(record_.calls.begin(), record_.calls.end(), [](SeenCall& call) { call.numNumbers = 0; });
  theFault = fault;
  if (fault.kind == Fault::Kind::kNoEntry) script.removeEntry(fault.function);
  if (isText) replaceText(fault.place, fault.text);
  if (isText || fault.kind == Fault::Kind::kNoEntry) record_.fired = true;
}

}  // namespace mirel::test
