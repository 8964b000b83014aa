#pragma once

/// The script that the scripted PKCS #11 module plays.
///
/// The module is a real shared library, opened by path. Its script lives outside the function list; a
/// test gets at it through the module's other exported symbol, "scriptedModule" (see
/// support/ScriptedModule.h, which also keeps the library mapped), and resets it before each test.
///
///     script.addObject(certificate(bytesOf("02"), bytesOf("Other"), patternValue(300, 1)));
///     script.failCallOf("C_FindObjects", 1, CKR_DEVICE_ERROR);
///     ...
///     EXPECT_THAT(script.callTexts(), ElementsAre("C_FindObjectsInit(5, [CKA_TOKEN=01])", ...));
///     EXPECT_THAT(script.openSearches(), IsEmpty());
///
/// Left alone the module behaves as the standard wants (v2.40), without any cryptography: `resultOf` and
/// `cipherOf` (Card.h) tell what it takes for signatures and cipher texts. It signs with CKM_RSA_PKCS,
/// CKM_RSA_X_509 (blocks up to the modulus length), CKM_RSA_PKCS_PSS (data of the hash's length) and
/// CKM_ECDSA, decrypts with CKM_RSA_PKCS and derives with CKM_ECDH1_DERIVE; there the parameters are read
/// whatever length they are given, and the value of the new key is `resultOf` of the public data. What it can
/// be made to do instead, each step coming before the next: fail a call (`failCall`), do nothing and answer
/// CKR_OK
/// (`Deviations::silent`), do whatever a test says (`hook`), deviate in a named way (`deviations`).
/// However hostile it plays, it never writes outside the room that its caller really gave.
///
/// To be used from one thread at a time. That is what the module wants of its callers as well: a call that
/// comes while another is under way is refused with CKR_CANT_LOCK, and `callsOverlapped` tells of it.

#include <array>
#include <atomic>
#include <cstddef>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "module/Card.h"
#include "module/Functions.h"

namespace mirel::test {

/// The default card's slot and objects.
inline constexpr CK_SLOT_ID kSlot = 1;
inline constexpr CK_OBJECT_HANDLE kPublicKey = 21;
inline constexpr CK_OBJECT_HANDLE kPrivateKey = 22;
inline constexpr CK_OBJECT_HANDLE kCertificate = 23;

/// The first session that is opened after a reset; the next are 6, 7, ...; none is ever given twice.
inline constexpr CK_SESSION_HANDLE kFirstSession = 5;

/// One call of the module.
struct Call {
  std::string function;
  /// The function with its arguments as they came in. Numbers are decimal, all-ones is "none"; data is
  /// in hexadecimal digits; pointers for results are left out unless they are null:
  ///   C_GetSlotList(1, list, 10)                                token present, list, *count
  ///   C_OpenSession(1, 4, null, null)                           slot, flags, application, callback
  ///   C_Login(5, 1, 313233343536)                               session, user type, PIN
  ///   C_GetAttributeValue(5, 21, [CKA_ID null 0, CKA_LABEL room 33])
  ///   C_FindObjectsInit(5, [CKA_TOKEN=01, CKA_ID=3031])
  ///   C_FindObjects(5, 1)                                       session, most to be found
  ///   C_SignInit(5, CKM 13 [592, 2, 32] 24, 22)                 session, mechanism, key
  ///   C_Sign(5, 0102, room 512)                                 session, data, *signatureLen
  ///   C_Decrypt(5, 0102, null 256)                              no output: the same with "null"
  ///   C_DeriveKey(5, CKM 4176 [kdf 1, shared null 0, public 04AB] 1, 22, [CKA_CLASS=0400000000000000])
  /// A mechanism is shown with its parameters and the length given for them: "CKM 3 null 0" without any,
  /// "CKM 3 0102 2" with some that it should not have.
  /// Other pointers are shown as "set" or "null".
  std::string text;
  CK_RV result = CKR_OK;
};

enum class Times { kOnce, kFromThenOn };

/// A function of the module replaced by a test. `real` is what the module does otherwise; the hook may
/// call it before, after or not at all.
template <typename Function>
struct HookType;
template <typename... Args>
struct HookType<CK_RV (*)(Args...)> {
  using type = std::function<CK_RV(CK_RV (*real)(Args...), Args...)>;
};
template <auto Function>
using Hook = typename HookType<FunctionType<Function>>::type;

/// Named ways of being hostile or clumsy. An unset one changes nothing.
struct Deviations {
  /// C_GetSlotList without a list reports this many.
  std::optional<CK_ULONG> slotCountOnQuery;
  /// C_GetSlotList with a list answers CKR_OK and reports this many, whatever there are and whatever the
  /// room is; it writes the slots there are, as far as the room goes.
  std::optional<CK_ULONG> slotCountOnList;

  /// C_FindObjects reports this many in every call of a search that has not ended; it writes no more
  /// than it was asked for.
  std::optional<CK_ULONG> foundPerCall;
  /// Searches never end: what they found starts anew (999 when they found nothing).
  bool endlessSearches = false;

  /// The length reported for an attribute on its first read, its second, ... and, once the list is used
  /// up, as on the last. Nothing: an honest read. The answer for that attribute is CKR_OK. As many bytes
  /// are written as are claimed and fit into the room given: the value, then 0xEE.
  std::map<CK_ATTRIBUTE_TYPE, std::vector<std::optional<CK_ULONG>>> claimedLengths;
  /// The value that an attribute has on its first read, its second, ...; then the last. Read honestly.
  std::map<CK_ATTRIBUTE_TYPE, std::vector<Value>> valuesInTurn;

  /// Before the login C_GetSessionInfo reports the PIN tries left as ulDeviceError.
  bool triesLeftAsDeviceError = false;

  /// What C_Sign or C_Decrypt, by name, answer with CKR_OK whatever the room is: a result of that length.
  /// Of it `written` bytes are written (as many as claimed when unset), but never more than the room that
  /// the caller announced: the real result, then 0xEE. A null output gets the length only.
  struct ClaimedResult {
    CK_ULONG length = 0;
    std::optional<CK_ULONG> written;
  };
  std::map<std::string, ClaimedResult> claimedResults;
  /// The length that C_Sign or C_Decrypt, by name, write when they fail, on their own or because they were
  /// made to; CKR_BUFFER_TOO_SMALL included.
  std::map<std::string, CK_ULONG> lengthsOnFailure;
  /// The plain text of every cipher text, of whatever length that is.
  std::optional<Value> plainText;

  /// The names of functions that answer CKR_OK without doing or writing anything.
  std::set<std::string> silent;
};

/// An open session.
struct Session {
  CK_SLOT_ID slot = 0;
  CK_FLAGS flags = 0;
  struct Search {
    std::vector<CK_OBJECT_HANDLE> found;
    std::size_t next = 0;
  };
  std::optional<Search> search;
  struct Operation {
    CK_MECHANISM_TYPE mechanism = 0;
    CK_MECHANISM_TYPE hash = 0;  ///< of PSS
    CK_OBJECT_HANDLE key = 0;
  };
  std::optional<Operation> signing;
  std::optional<Operation> decryption;
  /// Objects that end with the session.
  std::vector<CK_OBJECT_HANDLE> objects;
};

struct Slot {
  CK_SLOT_INFO info{};
  std::optional<Card> card;
};

class Script {
 public:
  /// `complete`: the module's functions; `live`: the list that it hands out.
  Script(const CK_FUNCTION_LIST& complete, CK_FUNCTION_LIST& live);
  Script(const Script&) = delete;
  Script& operator=(const Script&) = delete;

  /// Everything as at the start: a module that waits for C_Initialize, with one slot "Reader A 00" that
  /// holds one card: label "TESTCARD", serial number "1234567890ABCDEF", flags 0x40D, PIN "123456", one
  /// RSA key of 2048 bits and its certificate, all with the ID "01" and the label "MyKey". No calls, no
  /// faults, no hooks, no deviations.
  void reset();

  /// Forgets the calls made so far and how often attributes were read. All else stays.
  void forgetCalls();

  // ---- The readers and cards ----

  /// Adds a reader; slots are found in the order of their numbers. Returns its number.
  CK_SLOT_ID addSlot(std::string_view description, std::optional<Card> card = std::nullopt);
  [[nodiscard]] Slot& slot(CK_SLOT_ID id = kSlot);
  [[nodiscard]] Card& card(CK_SLOT_ID id = kSlot);
  [[nodiscard]] std::map<CK_SLOT_ID, Slot>& slots() { return slots_; }

  /// Adds an object behind the others. Handles count up over all cards and are never given twice.
  CK_OBJECT_HANDLE addObject(Object object, CK_SLOT_ID id = kSlot);
  [[nodiscard]] Object& object(CK_OBJECT_HANDLE handle);

  /// Takes the card out: its sessions are gone, and calls on them answer `code`.
  void pullCard(CK_SLOT_ID id = kSlot, CK_RV code = CKR_SESSION_HANDLE_INVALID);
  void insertCard(Card card, CK_SLOT_ID id = kSlot);
  /// Calls on sessions that were gone with a card answer as on those that never were.
  void forgetPulledSessions() { pulledSessions_.clear(); }

  // ---- What was called ----

  [[nodiscard]] const std::vector<Call>& calls() const { return calls_; }
  /// The texts of all calls, or of those of one function.
  [[nodiscard]] std::vector<std::string> callTexts(std::string_view function = {}) const;
  [[nodiscard]] std::size_t countOf(std::string_view function) const;

  /// Whether any call came while another was under way. Such calls are not among `calls`.
  [[nodiscard]] bool callsOverlapped() const { return overlapped_; }

  // ---- Failing calls ----

  /// The n-th call from here on (the next one is 0) answers `code` and does nothing else, except that a
  /// failing C_Sign or C_Decrypt ends its operation, as the standard wants.
  void failCall(std::size_t n, CK_RV code, Times times = Times::kOnce);
  /// The same, counting only the calls of one function.
  void failCallOf(std::string_view function, std::size_t n, CK_RV code, Times times = Times::kOnce);
  /// Whether any call was made to fail since the last reset.
  [[nodiscard]] bool fired() const;

  // ---- Other behaviour ----

  /// script.hook<&CK_FUNCTION_LIST::C_GetTokenInfo>([](auto real, CK_SLOT_ID slot, CK_TOKEN_INFO* info) {
  ///   const CK_RV rv = real(slot, info); ...; return rv; });
  template <auto Function>
  void hook(Hook<Function> replacement) {
    setHook(functionPosition(kCryptokiNameOf<Function>),
            std::make_shared<Hook<Function>>(std::move(replacement)));
  }

  /// Before the n-th call from here on (the next one is 0), and after it was recorded, does that once.
  void beforeCall(std::size_t n, std::function<void()> action);
  /// Whether that was done.
  [[nodiscard]] bool cameToCall() const { return !action_ && actionWasSet_; }

  /// Makes the entry of that function null in the list, until the next reset.
  void removeEntry(std::string_view function);

  Deviations deviations;

  // ---- What is left open ----

  [[nodiscard]] bool isInitialised() const { return initialised_; }
  [[nodiscard]] std::vector<CK_SESSION_HANDLE> openSessions() const;
  /// The sessions with a search that was not ended.
  [[nodiscard]] std::vector<CK_SESSION_HANDLE> openSearches() const;
  /// The sessions in which a signature or a decryption was begun and not ended.
  [[nodiscard]] std::vector<CK_SESSION_HANDLE> openOperations() const;

  // ---- For the module itself ----

  /// Whether a call may begin; it then ends with `endCall`. The only two that several threads may use.
  [[nodiscard]] bool beginCall() {
    const bool alone = !calling_.exchange(true);
    if (!alone) overlapped_ = true;
    return alone;
  }
  void endCall() { calling_ = false; }

  void setInitialised(bool initialised) { initialised_ = initialised; }
  [[nodiscard]] CK_SESSION_HANDLE openSession(CK_SLOT_ID slot, CK_FLAGS flags);
  void closeSession(CK_SESSION_HANDLE handle);
  void closeSessionsOf(CK_SLOT_ID slot);
  /// The session, or the code that a call on it answers.
  [[nodiscard]] Session* findSession(CK_SESSION_HANDLE handle, CK_RV& outCode);
  [[nodiscard]] Slot* findSlot(CK_SLOT_ID id);
  [[nodiscard]] std::size_t countRead(CK_ATTRIBUTE_TYPE type) { return reads_[type]++; }
  /// Records a call; returns its place among the calls.
  [[nodiscard]] std::size_t record(std::string_view function, std::string arguments);
  void setResult(std::size_t place, CK_RV result);
  /// Does what is to be done before the call that is about to be made.
  void actBeforeCall();
  /// The code that the call of that function, about to be made, must answer.
  [[nodiscard]] std::optional<CK_RV> dueFault(std::string_view function);
  /// What `hook` set for that position; null when nothing.
  [[nodiscard]] std::shared_ptr<void> hookAt(std::size_t position) const { return hooks_.at(position); }

 private:
  struct Fault {
    std::string function;  // empty: any
    std::size_t n = 0;
    CK_RV code = CKR_OK;
    Times times = Times::kOnce;
    std::size_t seen = 0;
    bool fired = false;
  };

  [[nodiscard]] std::vector<CK_SESSION_HANDLE> sessionsThat(bool (*want)(const Session&)) const;
  void setHook(std::size_t position, std::shared_ptr<void> hook) { hooks_.at(position) = std::move(hook); }

  const CK_FUNCTION_LIST& complete_;
  CK_FUNCTION_LIST& live_;
  std::atomic<bool> calling_{false};
  std::atomic<bool> overlapped_{false};
  bool initialised_ = false;
  std::map<CK_SLOT_ID, Slot> slots_;
  std::map<CK_SESSION_HANDLE, Session> sessions_;
  std::map<CK_SESSION_HANDLE, CK_RV> pulledSessions_;
  CK_SESSION_HANDLE nextSession_ = kFirstSession;
  CK_OBJECT_HANDLE nextObject_ = kPublicKey;
  std::vector<Call> calls_;
  std::vector<Fault> faults_;
  std::function<void()> action_;
  bool actionWasSet_ = false;
  std::size_t callsBeforeAction_ = 0;
  std::array<std::shared_ptr<void>, AllFunctions::kCount> hooks_;
  std::map<CK_ATTRIBUTE_TYPE, std::size_t> reads_;
};

/// The type of the module's exported symbol kScriptSymbol.
using ScriptEntry = Script* (*)();
inline constexpr const char* kScriptSymbol = "scriptedModule";

}  // namespace mirel::test
