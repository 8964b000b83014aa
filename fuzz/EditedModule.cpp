#include "EditedModule.h"

#include <openssl/x509.h>

#include <algorithm>
#include <cstring>
#include <fstream>
#include <iterator>
#include <map>
#include <optional>
#include <string>
#include <utility>

#include "Check.h"
#include "EditedAnswers.h"

namespace mirel::fuzz {
namespace {

/// What the module is doing just now. Apart from the script, since the functions of a module are no members.
struct Play {
  Input* input = nullptr;  ///< null: nothing is edited any more
  std::size_t wait = 0;    ///< calls up to the next one that is edited
  bool waits = false;
  /// The function that goes on failing, how often, and with what.
  std::size_t failing = 0;
  std::size_t failures = 0;
  CK_RV failure = CKR_OK;

  bool lied = false;
  bool failed = false;
  bool padsItself = false;
  bool decryptsRaw = false;

  // What goes wrong before the first call.
  bool opens = true;
  bool hasEntry = true;
  bool hasList = true;
  CK_RV entryCode = CKR_OK;
};

Play thePlay;
CK_FUNCTION_LIST liveList{};

}  // namespace
}  // namespace mirel::fuzz

namespace mirel::test {

template <>
inline CK_RV Behaviour<&List::C_GetFunctionList>::call(CK_FUNCTION_LIST_PTR_PTR list) {
  if (!list) return CKR_ARGUMENTS_BAD;
  *list = fuzz::thePlay.hasList ? &fuzz::liveList : nullptr;
  return fuzz::thePlay.entryCode;
}

}  // namespace mirel::test

namespace mirel::fuzz {
namespace {

// ---- The good card ----

Value fileOf(const char* name) {
  std::ifstream stream{std::string{MIREL_FUZZ_CARD "/"} + name, std::ios::binary};
  Value content{std::istreambuf_iterator<char>{stream}, {}};
  check(!content.empty(), "a file of the good card can be read");
  return content;
}

/// Raw RSA takes longer than all else, and inputs ask for few different blocks.
Value rawPrivate(const Value& block) {
  constexpr std::size_t kMostKept = 4096;
  static std::map<Value, Value> kept;
  if (const auto found = kept.find(block); found != kept.end()) return found->second;
  if (kept.size() >= kMostKept) kept.clear();
  return kept[block] = goodKey().rawPrivate(block);
}

void addPair(test::Script& script, const char* id, const char* label, const Value& certificate, bool isRsa) {
  const Value name = test::bytesOf(id);
  const Value text = test::bytesOf(label);
  static const Value modulus = goodKey().modulus();
  script.addObject(isRsa ? test::rsaPublicKey(name, text, modulus)
                         : test::ecPublicKey(name, text, test::p256Params(), test::p256Point(1)));
  script.addObject(isRsa ? test::rsaPrivateKey(name, text, modulus)
                         : test::ecPrivateKey(name, text, test::p256Params()));
  script.addObject(test::certificate(name, text, certificate));
}

void makeGoodCard(test::Script& script, unsigned keys) {
  const auto& [signer, vault, agree] = goodCertificates();
  script.card().objects.clear();
  script.card().pin = kGoodPin;
  if ((keys & kSigner) != 0) addPair(script, "01", "Signer", signer, true);
  if ((keys & kVault) != 0) addPair(script, "02", "Vault", vault, true);
  if ((keys & kAgree) != 0) addPair(script, "03", "Agree", agree, false);
}

// ---- Real raw RSA, which the scripted module does not do ----

CK_RV signForReal(CK_SESSION_HANDLE session, CK_BYTE_PTR data, CK_ULONG dataLen, CK_BYTE_PTR output,
                  CK_ULONG_PTR len) {
  const Value given = data ? Value(data, data + dataLen) : Value{};
  const CK_RV rv = Behaviour<&List::C_Sign>::call(session, data, dataLen, output, len);
  const std::size_t blockSize = goodKey().blockSize();
  if (rv != CKR_OK || !output || !len || *len != blockSize || given.size() > blockSize) return rv;
  Value block(blockSize - given.size(), 0x00);
  constexpr std::size_t kPadding = 3;  // bytes that are no filler
  if (thePlay.padsItself && block.size() >= kPadding) {
    std::fill(block.begin() + 1, block.end() - 1, CK_BYTE{0xFF});
    block[1] = 0x01;
  }
  block.insert(block.end(), given.begin(), given.end());
  const Value made = rawPrivate(block);
  std::copy(made.begin(), made.end(), output);
  return made.empty() ? CKR_DATA_INVALID : CKR_OK;
}

/// Cipher texts are the blocks themselves (see test::cipherOf), so that none has to be made by RSA.
CK_RV decryptForReal(CK_SESSION_HANDLE session, CK_BYTE_PTR data, CK_ULONG dataLen, CK_BYTE_PTR output,
                     CK_ULONG_PTR len) {
  auto& deviations = test::theScript().deviations;
  if (thePlay.decryptsRaw && data) deviations.plainText = Value(data, data + dataLen);
  return Behaviour<&List::C_Decrypt>::call(session, data, dataLen, output, len);
}

template <auto Function, typename... Args>
CK_RV realAnswer(Args... args) {
  if constexpr (std::is_same_v<Edit<Function>, Edit<&List::C_Sign>>) {
    return signForReal(args...);
  } else if constexpr (std::is_same_v<Edit<Function>, Edit<&List::C_Decrypt>>) {
    return decryptForReal(args...);
  } else {
    return Behaviour<Function>::call(args...);
  }
}

// ---- Which call is edited, and how ----

enum class Step { kReal, kFail, kFailAfterwards, kNothing, kEdit };

/// The card goes, or another one takes its place.
void touchCard(Input& input) {
  thePlay.lied = true;
  test::Script& script = test::theScript();
  if (script.slots().empty()) return;
  const CK_SLOT_ID slot = script.slots().begin()->first;
  const std::size_t what = input.below(4);
  std::optional<test::Card> card = script.slot(slot).card;
  if (card) {
    script.pullCard(slot, input.flag() ? CKR_DEVICE_REMOVED : CKR_SESSION_HANDLE_INVALID);
    card->loggedIn = false;
  }
  if (what == 0) return;
  if (what == 1 && card) return script.insertCard(*card, slot);
  script.insertCard(test::emptyCard("OTHER", "2"), slot);
}

Step nextStep(std::size_t function) {
  if (thePlay.failures > 0 && thePlay.failing == function) {
    --thePlay.failures;
    return Step::kFail;
  }
  if (!thePlay.input || thePlay.input->atEnd()) return Step::kReal;
  Input& input = *thePlay.input;
  if (!thePlay.waits) {
    thePlay.wait = input.byte();
    thePlay.waits = true;
  }
  if (thePlay.wait > 0) {
    --thePlay.wait;
    return Step::kReal;
  }
  thePlay.waits = false;
  const std::uint8_t kind = input.byte();
  constexpr std::size_t kRepeats[] = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1, 2, 5, 30, 1000};
  switch (kind % 16) {
    case 0:
    case 1:
    case 2:
      thePlay.failing = function;
      thePlay.failures = kRepeats[kind / 16];
      thePlay.failure = codeFrom(input);
      if (thePlay.failure == CKR_OK) thePlay.lied = true;
      return Step::kFail;
    case 3:
      thePlay.failure = codeFrom(input);
      thePlay.lied = true;
      return Step::kFailAfterwards;
    case 4: thePlay.lied = true; return Step::kNothing;
    case 5: touchCard(input); return Step::kReal;
    default: thePlay.lied = true; return Step::kEdit;
  }
}

template <auto Function, typename Type = FunctionType<Function>>
struct Entry;

template <auto Function, typename... Args>
struct Entry<Function, CK_RV (*)(Args...)> {
  static CK_RV call(Args... args) {
    static const std::size_t position = test::functionPosition(kCryptokiNameOf<Function>);
    switch (nextStep(position)) {
      case Step::kReal: break;
      case Step::kFail:
        thePlay.failed = true;
        if constexpr (requires { Behaviour<Function>::afterFailure(args...); }) {
          Behaviour<Function>::afterFailure(args...);
        }
        return thePlay.failure;
      case Step::kFailAfterwards:
        thePlay.failed = true;
        (void)realAnswer<Function>(args...);
        return thePlay.failure;
      case Step::kNothing: return CKR_OK;
      case Step::kEdit: return Edit<Function>::call(*thePlay.input, args...);
    }
    return realAnswer<Function>(args...);
  }
};

template <auto... Functions>
CK_FUNCTION_LIST listOf(FunctionPack<Functions...>) {
  CK_FUNCTION_LIST list{};
  list.version = {2, 40};
  ((list.*Functions = &Entry<Functions>::call), ...);
  return list;
}

class ModuleLoader final : public DynamicLoader {
 public:
  [[nodiscard]] void* open(const char*) noexcept override { return thePlay.opens ? &liveList : nullptr; }
  [[nodiscard]] void* symbol(void* library, const char* name) noexcept override {
    check(library == &liveList, "symbols are asked of the library that was opened");
    if (!thePlay.hasEntry || std::string_view{name} != "C_GetFunctionList") return nullptr;
    return reinterpret_cast<void*>(&Entry<&List::C_GetFunctionList>::call);
  }
  bool close(void* library) noexcept override { return library == &liveList; }
  [[nodiscard]] std::string errorText() noexcept override {
    return thePlay.opens && thePlay.hasEntry ? "" : "the loader says why";
  }
};

}  // namespace

const test::SoftwareKey& goodKey() {
  static const test::SoftwareKey key = [] {
    const Value der = fileOf("rsa-key.der");
    const unsigned char* next = der.data();
    return test::SoftwareKey{d2i_AutoPrivateKey(nullptr, &next, static_cast<long>(der.size()))};
  }();
  return key;
}

const std::array<Value, 3>& goodCertificates() {
  static const std::array certificates{fileOf("signer.der"), fileOf("vault.der"), fileOf("agree.der")};
  return certificates;
}

// ---- What the card holds ----

namespace {

/// One of the objects; null when there is none.
test::Object* objectFrom(Input& input, test::Card& card) {
  const std::size_t which = input.byte();
  if (card.objects.empty()) return nullptr;
  return &std::next(card.objects.begin(), static_cast<std::ptrdiff_t>(which % card.objects.size()))->second;
}

CK_ATTRIBUTE_TYPE attributeFrom(Input& input) {
  constexpr CK_ATTRIBUTE_TYPE kTypes[] = {
      CKA_LABEL,    CKA_ID,        CKA_VALUE,  CKA_KEY_TYPE, CKA_MODULUS,
      CKA_EC_POINT, CKA_EC_PARAMS, CKA_CLASS,  CKA_PRIVATE,  CKA_TOKEN,
      CKA_SIGN,     CKA_DECRYPT,   CKA_DERIVE, CKA_SUBJECT,  CKA_ALWAYS_AUTHENTICATE};
  return kTypes[input.below(std::size(kTypes))];
}

void changeAttribute(Input& input, test::Object& object) {
  const CK_ATTRIBUTE_TYPE type = attributeFrom(input);
  Value& value = object.attributes[type];
  switch (input.below(5)) {
    case 0: value = input.bytes(2100); break;
    case 1: value = test::ulongValue(input.number()); break;
    case 2: object.attributes.erase(type); break;
    case 3: object.sensitive.insert(type); break;
    default:  // a few bytes of it
      for (std::size_t i = input.below(4) + 1; i > 0 && !value.empty(); --i)
        value[input.number() % value.size()] ^= input.byte();
      break;
  }
}

void changeObjects(Input& input, test::Script& script) {
  test::Card& card = script.card();
  const bool removes = input.flag();
  test::Object* const object = objectFrom(input, card);
  if (!object) return;
  if (removes) {
    std::erase_if(card.objects, [&](const auto& entry) { return &entry.second == object; });
    return;
  }
  constexpr std::size_t kManyCopies = 170;  // more than are listed
  const std::size_t kind = input.byte();
  // A card lists each certificate once for each key of its ID, so many of both would take long.
  const bool maybeMany = kind == 0xFF && card.objects.size() < kManyCopies / 2;
  const std::size_t copies = maybeMany ? kManyCopies : kind % 4 + 1;
  const test::Object copy = *object;
  for (std::size_t i = 0; i < copies; ++i) script.addObject(copy);
}

void changeReaders(Input& input, test::Script& script) {
  const Value text = input.bytes(64);
  const std::string description{text.begin(), text.end()};
  switch (input.below(4)) {
    case 0: test::setField(script.slot().info.slotDescription, description); break;
    case 1: script.addSlot(description, test::emptyCard("EMPTY", "3")); break;
    case 2:
      for (std::size_t i = input.below(12); i > 0; --i) script.addSlot(description, script.card());
      break;
    default: script.addSlot(description); break;
  }
}

void changeStart(Input& input) {
  thePlay.failed = true;
  switch (input.below(4)) {
    case 0: thePlay.opens = false; break;
    case 1: thePlay.hasEntry = false; break;
    case 2: thePlay.hasList = false; break;
    default: thePlay.entryCode = codeFrom(input); break;
  }
}

void changePin(Input& input, test::Card& card) {
  switch (input.below(3)) {
    case 0: card.privateObjectsNeedLogin = false; break;
    case 1: card.triesLeft = static_cast<unsigned>(input.below(4)); break;
    default: card.pin = "another"; break;
  }
}

void changeBehaviour(Input& input, test::Script& script) {
  thePlay.lied = true;
  test::Deviations& deviations = script.deviations;
  const std::uint8_t kind = input.byte();
  if (kind == 0xFF) {
    script.card().objects.clear();  // else each certificate would be listed once for each key
    deviations.endlessSearches = true;
  }
  switch (kind % 6) {
    case 0: deviations.slotCountOnQuery = input.number() % 64; break;
    case 1: deviations.foundPerCall = input.number(); break;
    case 2: deviations.slotCountOnQuery = input.number(); break;
    case 3: deviations.slotCountOnList = input.number(); break;
    case 4: deviations.triesLeftAsDeviceError = true; break;
    default: deviations.claimedLengths[attributeFrom(input)] = {std::nullopt, input.number()}; break;
  }
}

}  // namespace

void EditedModule::changeCard(Input& input) {
  test::Script& script = this->script();
  switch (input.below(12)) {
    case 0:
    case 1:
    case 2:
    case 3:
      if (test::Object* const object = objectFrom(input, script.card())) changeAttribute(input, *object);
      break;
    case 4:
    case 5: changeObjects(input, script); break;
    case 6: editToken(input, script.card().info); break;
    case 7: changeReaders(input, script); break;
    case 8: changePin(input, script.card()); break;
    case 9: changeBehaviour(input, script); break;
    case 10:
      thePlay.failed = true;
      script.removeEntry(kCryptokiFunctionNames[input.byte() % AllFunctions::kCount]);
      break;
    default: changeStart(input); break;
  }
}

EditedModule::EditedModule(Input& input, unsigned keys) {
  thePlay = {};
  const std::uint8_t first = input.byte();
  makeGoodCard(script(), (first & 0x08U) != 0 ? kAllKeys : keys);
  thePlay.padsItself = (first & 0x10U) != 0;
  thePlay.decryptsRaw = (first & 0x20U) != 0;
  const std::size_t changes = first % 8;
  changed_ = changes > 0;
  for (std::size_t i = 0; i < changes && !input.atEnd(); ++i) changeCard(input);
  thePlay.input = &input;
}

/// Resets the script when a run has ended instead of before the next one: so each run frees what it has
/// allocated, and the fuzzer does not take it for a leak that it has to look for.
EditedModule::~EditedModule() {
  thePlay = {};
  script().reset();
}

void EditedModule::behave() noexcept {
  thePlay.input = nullptr;
  thePlay.failures = 0;
}

bool EditedModule::hasLied() const noexcept { return thePlay.lied; }

bool EditedModule::hasFailed() const noexcept { return thePlay.failed; }

bool EditedModule::decryptsRaw() const noexcept { return thePlay.decryptsRaw; }

test::Script& EditedModule::script() noexcept { return test::theScript(); }

std::shared_ptr<DynamicLoader> EditedModule::loader() { return std::make_shared<ModuleLoader>(); }

}  // namespace mirel::fuzz

namespace mirel::test {

Script& theScript() {
  static const CK_FUNCTION_LIST complete = fuzz::listOf(AllFunctions{});
  static Script script{complete, fuzz::liveList};
  return script;
}

}  // namespace mirel::test
