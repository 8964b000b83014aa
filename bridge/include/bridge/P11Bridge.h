#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include "bridge/BridgeOperation.h"
#include "bridge/CardRules.h"
#include "bridge/PKCS11_SERVICE_INFO.h"
#include "bridge/cryptoki.h"
#include "platform/AtomicProperty.h"
#include "platform/PlatformServices.h"
#include "platform/Text.h"

namespace mirel {

/// Oddity: CKR_SESSION_EXISTS as this system has always answered it. The number holds, not the name: in the
/// standard's header 0xB3 is CKR_SESSION_HANDLE_INVALID and CKR_SESSION_EXISTS is 0xB6.
inline constexpr CK_RV kSessionExists = 0xB3;

/// Oddity: CKR_SESSION_READ_ONLY_EXISTS as this system has always answered it. The number holds, not the
/// name: in the standard's header 0xB4 is CKR_SESSION_PARALLEL_NOT_SUPPORTED.
inline constexpr CK_RV kSessionReadOnlyExists = 0xB4;

/// Oddity: a code of our own, for a login that the module accepted but that left no user logged in.
inline constexpr CK_RV kLoginDidNotTake = CKR_VENDOR_DEFINED + 0xB4;

/// The most room that is announced to the module for a signature or a plain text, in bytes: far more than
/// any key can fill.
inline constexpr CK_ULONG kMaxResultRoom = 65536;

/// The system's only contact with the card maker's PKCS #11 module: loads it, holds its function list
/// and wraps every Cryptoki call in an operation with fixed templates, limits and result codes.
///
/// Conventions
/// - Results are codes of PKCS #11 v2.40 (section 5.1). A failing Cryptoki call's code is passed on
///   unchanged, except where an operation says otherwise. A function that the module's list lacks
///   answers CKR_FUNCTION_NOT_SUPPORTED.
/// - CKR_CRYPTOKI_NOT_INITIALIZED: there is no function list. CKR_ARGUMENTS_BAD: a required pointer
///   is null, or a handle that an operation checks is 0 or all-ones.
/// - Lengths are bytes. Nothing the module reports is used before it has been checked, and no length
///   is looked at after a failing call.
/// - Nothing throws. Not thread-safe beyond the atomic accessors: one thread at a time. Different bridges may
///   be used at the same time: their Cryptoki calls wait for one another.
/// - After `pkcs11_UnLoad` the function list is stale by design: call nothing but `pkcs11_Load` then.
class P11Bridge final {
 public:
  explicit P11Bridge(PlatformServices services) noexcept;
  P11Bridge(const P11Bridge&) = delete;
  P11Bridge& operator=(const P11Bridge&) = delete;

  // ---- State, with atomic accessors ----

  /// The full path the module was loaded from, UTF-8; null before the first load.
  [[nodiscard]] std::shared_ptr<const std::string> p11dylib() const noexcept { return p11dylib_.get(); }
  void setP11dylib(std::shared_ptr<const std::string> path) noexcept { p11dylib_.set(std::move(path)); }

  /// The loader's handle of the module; null when none was opened.
  [[nodiscard]] void* phP11Module() const noexcept { return phP11Module_; }
  void setPhP11Module(void* module) noexcept { phP11Module_ = module; }

  /// The module's entry point; null before it was found.
  [[nodiscard]] CK_C_GetFunctionList phFunctionList() const noexcept { return phFunctionList_; }
  void setPhFunctionList(CK_C_GetFunctionList entry) noexcept { phFunctionList_ = entry; }

  /// The module's function list; null while the module is not usable.
  [[nodiscard]] CK_FUNCTION_LIST* ckFunc() const noexcept { return ckFunc_; }
  void setCkFunc(CK_FUNCTION_LIST* list) noexcept { ckFunc_ = list; }

  // ---- Module and slots ----

  /// Loads the module from the one place there is: the user's home and kModuleTail. `ignoredPath` is not
  /// looked at.
  /// True when the module is loaded and has given a function list. After a failed step what was
  /// reached stays as it is (a module without an entry point stays open); a list that a failing entry
  /// point wrote is not taken.
  [[nodiscard]] bool pkcs11_Load(const Text& ignoredPath) noexcept;

  /// Closes the module. False when none is open. All properties keep their values. Never call it
  /// twice, nor anything else but `pkcs11_Load` after it.
  bool pkcs11_UnLoad(const void* ignored) noexcept;

  /// C_Initialize. Without a function list CKR_GENERAL_ERROR, unlike every other operation.
  [[nodiscard]] CK_RV pkcs11_Initial(CK_VOID_PTR pInitArgs) noexcept;

  /// C_Finalize. `pReserved` must be null, else CKR_FUNCTION_FAILED without a call.
  [[nodiscard]] CK_RV pkcs11_Finalize(CK_VOID_PTR pReserved) noexcept;

  /// C_GetInfo. `outInfo` is written whatever the result, with zeros where the module wrote nothing.
  [[nodiscard]] CK_RV pkcs11_GetInfo(CK_INFO* outInfo) noexcept;

  /// C_GetSlotList. The module is told of room for kAnnouncedSlots whatever `*outCount` holds: `outList`
  /// (null: only count) must have room for as many at least. `outCount` gets what the module reports, which
  /// may be more; written on success only. CKR_SLOT_ID_INVALID when there is no slot or the first one
  /// listed is all-ones.
  [[nodiscard]] CK_RV pkcs11_C_GetSlotList(CK_BBOOL tokenPresent, CK_SLOT_ID* outList,
                                           CK_ULONG* outCount) noexcept;

  /// The first slot with a token whose description begins with `description` (code unit by code unit
  /// against the bytes; never beyond the description's 64); the first readable one when it is null or
  /// empty. `outSlotID` is all-ones on every failure but the want of a function list. CKR_SLOT_ID_INVALID:
  /// none matches. CKR_HOST_MEMORY: the module reports more than kMaxSlots slots.
  [[nodiscard]] CK_RV pkcs11_FindSlot(const Text& description, CK_SLOT_ID* outSlotID) noexcept;

  /// Reads slot and token information. A record given in `*ioRecord` gets both, its other members stay;
  /// where it is empty it is set to a new record with slotID, slotInfo and tokenInfo. Unchanged on
  /// failure. C_GetTokenInfo is tried once more after CKR_DEVICE_REMOVED. The session that it opens
  /// for the time of the call is closed again. CKR_HOST_MEMORY: no record can be made.
  /// CKR_SLOT_ID_INVALID: `slotID` is all-ones.
  [[nodiscard]] CK_RV pkcs11_GetTokenInfo(CK_SLOT_ID slotID,
                                          std::shared_ptr<PKCS11_SERVICE_INFO>* ioRecord) noexcept;

  // ---- Sessions and login ----

  /// Opens a read-only session. An empty `*ioRecord` is set to a new record that holds it. A record
  /// given keeps all it has, its session included, and only gets the new session's information; the
  /// session just opened is then closed again. kSessionExists: the record has no session afterwards.
  /// On any other failure the record is unchanged and no session stays open.
  [[nodiscard]] CK_RV pkcs11_OpenReadOnlySession(CK_SLOT_ID slotID,
                                                 std::shared_ptr<PKCS11_SERVICE_INFO>* ioRecord) noexcept;

  /// Refreshes the session information in `*ioRecord`. A null pointer or an empty reference stores
  /// nothing; the call is made all the same.
  [[nodiscard]] CK_RV pkcs11_GetSessionInfo(CK_SESSION_HANDLE session,
                                            std::shared_ptr<PKCS11_SERVICE_INFO>* ioRecord) noexcept;

  /// Closes the record's session; on success the record has none, and zeros as its information.
  /// CKR_SLOT_ID_INVALID when the record belongs to another slot: the session is closed by then, the
  /// record unchanged.
  [[nodiscard]] CK_RV pkcs11_CloseSession(CK_SLOT_ID slotID,
                                          const std::shared_ptr<PKCS11_SERVICE_INFO>& record) noexcept;

  /// Logs the user in with 1 to kMaxPinLen bytes of PIN (else CKR_ARGUMENTS_BAD, without a call), handed
  /// on as they are and never copied. kSessionReadOnlyExists, CKR_SLOT_ID_INVALID, kLoginDidNotTake: the
  /// session is not a serial one, has no slot, is in no user state afterwards. On success the
  /// session's ulDeviceError, which is 0 on a healthy token.
  [[nodiscard]] CK_RV pkcs11_UserLogin(CK_SESSION_HANDLE session, const CK_BYTE* pin,
                                       CK_ULONG pinLen) noexcept;

  // ---- Objects ----
  //
  // The readers share one convention. `outValue` null: the length is written and CKR_OK returned. Else
  // `*ioLen` holds the capacity on entry; the value is copied and its length written, or
  // CKR_BUFFER_TOO_SMALL returned. On every failure a length given is set to 0. CKR_HOST_MEMORY: no
  // memory for the value.

  /// Finds objects, at most `maxObjects` and never more than kMaxFoundObjects, in the module's order.
  /// `outObjects`: room for that many, or null to count only. `outCount`: handles kept; untouched when
  /// the search cannot start. Returns the last C_FindObjects code, so a failure in the middle comes
  /// with the handles found before it; CKR_OK when only counting. The search is always ended.
  [[nodiscard]] CK_RV pkcs11_FindObjects(CK_SESSION_HANDLE session, CK_ATTRIBUTE* attributes, CK_ULONG count,
                                         CK_OBJECT_HANDLE* outObjects, CK_ULONG* outCount,
                                         CK_ULONG maxObjects) noexcept;

  /// Reads attributes: lengths for the entries with a null pointer, values for those with a buffer of
  /// ulValueLen bytes. With k buffers the module is asked k + 1 times, each time for all entries.
  ///
  /// CKR_FUNCTION_FAILED: `count` exceeds `maxCount`. CKR_ATTRIBUTE_VALUE_INVALID: an attribute is empty
  /// or unavailable; with kRereadFailed when that, or any other failure, only shows on reading again.
  /// CKR_BUFFER_TOO_SMALL: a value is longer than `maxValueLen`, or the module claims more than the
  /// buffer holds. On success no length of an entry with a buffer exceeds that buffer.
  ///
  /// On failure the buffers of the entries 1 to i + 1 (i: the entry it failed at, 0 for the first
  /// read) are released and their pointers and lengths zeroed. So the buffers of all entries but the
  /// first must come from the services' Memory; the first one stays its owner's.
  [[nodiscard]] CK_RV pkcs11_getObjsAttriValue(CK_SESSION_HANDLE session, CK_OBJECT_HANDLE object,
                                               CK_ATTRIBUTE* attributes, CK_ULONG count, CK_ULONG maxCount,
                                               CK_ULONG maxValueLen) noexcept;

  /// Reads CKA_MODULUS, up to the length that its rule takes. A null `ioLen` is refused (CKR_ARGUMENTS_BAD)
  /// after reading.
  [[nodiscard]] CK_RV pkcs11_getRSAKeyModulus(CK_SESSION_HANDLE session, CK_OBJECT_HANDLE key,
                                              CK_BYTE* outValue, CK_ULONG* ioLen) noexcept;

  /// Reads CKA_EC_POINT, up to the length that its rule takes, as the module gives it (with its DER OCTET
  /// STRING header); CKA_EC_PARAMS must be readable too. A null `ioLen` is refused after reading.
  [[nodiscard]] CK_RV pkcs11_getECPublicKey(CK_SESSION_HANDLE session, CK_OBJECT_HANDLE key,
                                            CK_BYTE* outValue, CK_ULONG* ioLen) noexcept;

  /// Reads CKA_VALUE, if it is shorter than what its rule takes. A null `ioLen` is refused after reading.
  [[nodiscard]] CK_RV pkcs11_getCertificate(CK_SESSION_HANDLE session, CK_OBJECT_HANDLE certificate,
                                            CK_BYTE* outValue, CK_ULONG* ioLen) noexcept;

  /// Finds the private key with the CKA_ID of the given public key or certificate. `*ioKey` must not be
  /// all-ones on entry. CKR_KEY_HANDLE_INVALID: there is none, or the ID has more than 254 bytes.
  [[nodiscard]] CK_RV pkcs11_getCorrespondingPrivateKey(CK_SESSION_HANDLE session, CK_OBJECT_HANDLE object,
                                                        CK_OBJECT_HANDLE* ioKey) noexcept;

  /// Reads CKA_VALUE, up to the length that its rule takes (shorter for the length alone), of the first
  /// certificate with that label. The arguments are checked before the function list. CKR_FUNCTION_FAILED:
  /// the search failed. CKR_DATA_INVALID: there is none.
  [[nodiscard]] CK_RV GetCertBlobByLabel(CK_SESSION_HANDLE session, const CK_BYTE* label, CK_ULONG labelLen,
                                         CK_BYTE* outValue, CK_ULONG* ioLen) noexcept;

  // ---- Private keys ----
  //
  // Conventions: `data` and `cipher` are not null and not empty, `capacity` (bytes of the
  // output) and the length pointers are not 0 or null, sessions and objects neither 0 nor all-ones; else
  // CKR_ARGUMENTS_BAD. A "key object" is any object with the CKA_ID of the key pair: its private key, its
  // public key or its certificate; CKR_KEY_HANDLE_INVALID: no private key has that ID.
  //
  // The room announced to the module may exceed `capacity`. The module then writes to memory of the
  // bridge, and what fits is copied: nothing is ever written beyond `capacity`. A result longer than that
  // has a code of its own, and its length stays as the module wrote it. CKR_HOST_MEMORY: more room than
  // kMaxResultRoom was to be announced, or there is no memory for it. After a failure the content of an
  // output is not defined, and its length is what the last step left in it.

  /// Signs one block with raw RSA (CKM_RSA_X_509): the caller supplies it complete, padding included.
  /// `key`: the private key itself. `ioSignatureLen`: the room announced to the module, then the length.
  /// There is no size query: a null output is CKR_KEY_HANDLE_INVALID where the length is 0 or all-ones,
  /// else CKR_FUNCTION_FAILED. CKR_SIGNATURE_INVALID: the signature is longer than `capacity`.
  [[nodiscard]] CK_RV pkcs11_genSignaturePKCS1(CK_SESSION_HANDLE session, CK_OBJECT_HANDLE key,
                                               const CK_BYTE* data, CK_ULONG dataLen, CK_BYTE* outSignature,
                                               CK_ULONG* ioSignatureLen, CK_ULONG capacity) noexcept;

  /// Signs a hash with RSASSA-PSS (RFC 8017, section 8.1), MGF1 and salt length following from `hash`
  /// (CKM_SHA_1, CKM_SHA224, CKM_SHA256, CKM_SHA384, CKM_SHA512; else CKR_MECHANISM_INVALID). The room
  /// announced is the length of the private key's modulus. A null output asks for that length.
  /// CKR_SIGNATURE_LEN_RANGE: the signature is longer than `capacity`.
  [[nodiscard]] CK_RV pkcs11_genSignaturePSS(CK_SESSION_HANDLE session, CK_OBJECT_HANDLE keyObject,
                                             CK_MECHANISM_TYPE hash, const CK_BYTE* data, CK_ULONG dataLen,
                                             CK_BYTE* outSignature, CK_ULONG* outSignatureLen,
                                             CK_ULONG capacity) noexcept;

  /// Signs a hash with ECDSA; the signature is r and s, one behind the other (PKCS #11, section 2.3.1).
  /// `keySizeInBits`: 256 or 384, else CKR_CURVE_NOT_SUPPORTED (up to 521) or CKR_ARGUMENTS_BAD.
  /// `ioSignatureLen`: the room announced, then the length. With a null output it keeps its value, and
  /// CKR_KEY_HANDLE_INVALID is answered when that is 0 or all-ones. CKR_SIGNATURE_LEN_RANGE: the
  /// signature is longer than `capacity`.
  [[nodiscard]] CK_RV pkcs11_genECDSA(CK_SESSION_HANDLE session, CK_OBJECT_HANDLE keyObject,
                                      std::uint32_t keySizeInBits, const CK_BYTE* data, CK_ULONG dataLen,
                                      CK_BYTE* outSignature, CK_ULONG* ioSignatureLen,
                                      CK_ULONG capacity) noexcept;

  /// Decrypts with RSAES-PKCS1-v1_5 (RFC 8017, section 7.2). The room announced is the length of the
  /// private key's modulus. A null output asks the module for the length; it may then keep the operation
  /// open, so that the session's next decryption is refused. CKR_ENCRYPTED_DATA_LEN_RANGE: the plain text
  /// is longer than `capacity`.
  [[nodiscard]] CK_RV pkcs11_genDecryptPKCS1(CK_SESSION_HANDLE session, CK_OBJECT_HANDLE keyObject,
                                             const CK_BYTE* cipher, CK_ULONG cipherLen, CK_BYTE* outPlain,
                                             CK_ULONG* outPlainLen, CK_ULONG capacity) noexcept;

  /// The same, by the same mechanism, after a look at `hash`: CKR_MECHANISM_INVALID unless it is one of
  /// those of `pkcs11_genSignaturePSS`.
  [[nodiscard]] CK_RV pkcs11_genDecryptOAEP(CK_SESSION_HANDLE session, CK_OBJECT_HANDLE keyObject,
                                            const CK_BYTE* cipher, CK_ULONG cipherLen, CK_MECHANISM_TYPE hash,
                                            CK_BYTE* outPlain, CK_ULONG* outPlainLen,
                                            CK_ULONG capacity) noexcept;

  /// Derives a generic secret of 16 bytes by ECDH (CKM_ECDH1_DERIVE without a key derivation function): a
  /// sensitive session object, whose handle is written to `outKey`. `publicData`: the other party's point,
  /// not null, an empty one is passed on; `publicDataLen` not all-ones. After these the base key is looked
  /// at: CKR_KEY_HANDLE_INVALID when it is 0, CKR_ARGUMENTS_BAD when it is all-ones.
  [[nodiscard]] CK_RV pkcs11_genSymKeyFromECDH(CK_SESSION_HANDLE session, CK_OBJECT_HANDLE baseKey,
                                               const CK_BYTE* publicData, CK_ULONG publicDataLen,
                                               CK_OBJECT_HANDLE* outKey) noexcept;

  // ---- Beside the token's road ----
  //
  // Additions of our own, for whoever tells the user what the readers and their cards hold. No layer above
  // uses them, so nothing here decides what a token does; and the observer, who follows what tokens do, is
  // not told. The module's answer is passed on as it is, CKR_CRYPTOKI_NOT_INITIALIZED without a function
  // list.

  /// What a Cryptoki function answered.
  struct Answer {
    const char* function;  ///< the standard's name, "C_FindObjects"
    CK_RV result;
  };

  /// True when there is a function list.
  [[nodiscard]] bool hasModule() const noexcept { return ckFunc() != nullptr; }

  /// The version of the standard that the function list names; 0.0 without a list.
  [[nodiscard]] CK_VERSION listVersion() const noexcept {
    return hasModule() ? ckFunc()->version : CK_VERSION{};
  }

  /// The names of those functions that the layers call and the function list lacks; none without a list.
  [[nodiscard]] std::vector<const char*> missingEntries() const noexcept;

  /// C_GetSlotList: all slots, or those with a token, however many there are; asked for again where one has
  /// come between counting and listing. CKR_HOST_MEMORY: the module reports more than kMaxSlots.
  /// `outSlots` has no defined content after a failure.
  [[nodiscard]] CK_RV inspectSlots(bool withTokenOnly, std::vector<CK_SLOT_ID>& outSlots) const noexcept;

  /// C_GetSlotInfo. `outInfo`: zeros after a failure, and where the module wrote nothing.
  [[nodiscard]] CK_RV inspectSlot(CK_SLOT_ID slotID, CK_SLOT_INFO& outInfo) const noexcept;

  /// C_GetTokenInfo, once more after CKR_DEVICE_REMOVED as in `pkcs11_GetTokenInfo`, but without a session.
  /// `outInfo`: zeros where the module wrote nothing.
  [[nodiscard]] CK_RV inspectToken(CK_SLOT_ID slotID, CK_TOKEN_INFO& outInfo) const noexcept;

  /// C_OpenSession, read-only, and C_CloseSession: the session for those below. Close each one that was
  /// opened; that this may fail is ignored.
  [[nodiscard]] CK_RV openInspection(CK_SLOT_ID slotID, CK_SESSION_HANDLE& outSession) const noexcept;
  void closeInspection(CK_SESSION_HANDLE session) const noexcept;

  /// C_GetSessionInfo. `outInfo`: zeros after a failure, and where the module wrote nothing.
  [[nodiscard]] CK_RV inspectSession(CK_SESSION_HANDLE session, CK_SESSION_INFO& outInfo) const noexcept;

  /// Finds the objects of a class, on the token or not, at most `most`. The answer is that of the
  /// search call that failed, else of the last one; `outObjects` gets what was found before it.
  [[nodiscard]] Answer inspectObjects(CK_SESSION_HANDLE session, CK_OBJECT_CLASS objectClass,
                                      std::vector<CK_OBJECT_HANDLE>& outObjects,
                                      CK_ULONG most = kMaxListedObjects) const noexcept;

  /// C_GetAttributeValue. The lengths in `ioEntries` are as the module wrote them: look whether they exceed
  /// the buffers.
  [[nodiscard]] CK_RV inspectAttributes(CK_SESSION_HANDLE session, CK_OBJECT_HANDLE object,
                                        std::span<CK_ATTRIBUTE> ioEntries) const noexcept;

 private:
  struct ValueReader;
  struct KeyResult;

  template <auto Entry, typename... Args>
  [[nodiscard]] CK_RV call(Args... args) const noexcept;
  template <auto Entry, typename... Args>
  [[nodiscard]] CK_RV ask(Args... args) const noexcept;
  template <typename Body>
  [[nodiscard]] CK_RV operation(BridgeOperation which, const Body& body) const noexcept;

  [[nodiscard]] CK_RV chooseSlot(const Text& description, const CK_SLOT_ID* slots, CK_ULONG numSlots,
                                 CK_SLOT_ID* outSlotID) const noexcept;
  void closeUnusedSession(CK_SESSION_HANDLE session,
                          const std::shared_ptr<PKCS11_SERVICE_INFO>& record) const noexcept;
  [[nodiscard]] CK_RV readValue(const ValueReader& reader, CK_SESSION_HANDLE session, CK_OBJECT_HANDLE object,
                                CK_BYTE* outValue, CK_ULONG* ioLen) noexcept;
  template <auto InitEntry, auto Entry>
  [[nodiscard]] CK_RV useKey(CK_SESSION_HANDLE session, CK_MECHANISM& mechanism, CK_OBJECT_HANDLE key,
                             const CK_BYTE* data, CK_ULONG dataLen, const KeyResult& result) const noexcept;
  [[nodiscard]] CK_RV decryptPKCS1(CK_SESSION_HANDLE session, CK_OBJECT_HANDLE keyObject,
                                   const CK_BYTE* cipher, CK_ULONG cipherLen,
                                   const KeyResult& result) noexcept;

  PlatformServices services_;
  AtomicProperty<std::shared_ptr<const std::string>> p11dylib_;
  std::atomic<void*> phP11Module_{nullptr};
  std::atomic<CK_C_GetFunctionList> phFunctionList_{nullptr};
  std::atomic<CK_FUNCTION_LIST*> ckFunc_{nullptr};
};

}  // namespace mirel
