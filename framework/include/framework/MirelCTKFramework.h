#pragma once

#include <cstdint>
#include <memory>
#include <span>

#include "bridge/PKCS11_SERVICE_INFO.h"
#include "platform/AtomicProperty.h"
#include "platform/PlatformServices.h"
#include "platform/Text.h"

namespace mirel {

class P11Bridge;

/// The card framework: starts and stops the module, selects the card of a named reader, keeps its
/// session and lists its keys and certificates. Owns the bridge and one card record, which describes
/// the one card it works with at a time.
///
/// Conventions
/// - Results are true for success. No operation says why it failed; nothing is logged except where an
///   operation says so.
/// - Without a bridge no operation touches the module, and those that need it fail.
/// - A record that is stored is a copy of the record built or received; the copy shares its arrays.
/// - A module that was opened successfully stays loaded and initialised for the life of the process:
///   neither `CloseFrameworkService` nor the destructor ends it. That is intended.
/// - Nothing throws. No locks: one thread at a time, except for the accessors of `p11Bridge`.
class MirelCTKFramework final {
 public:
  explicit MirelCTKFramework(PlatformServices services) noexcept;
  MirelCTKFramework(const MirelCTKFramework&) = delete;
  MirelCTKFramework& operator=(const MirelCTKFramework&) = delete;
  ~MirelCTKFramework();

  // ---- State ----

  /// Null until `Framework_Load`; its presence is also the mark that the module has been loaded.
  [[nodiscard]] std::shared_ptr<P11Bridge> p11Bridge() const noexcept { return p11Bridge_.get(); }
  void setP11Bridge(std::shared_ptr<P11Bridge> bridge) noexcept { p11Bridge_.set(std::move(bridge)); }

  /// The current card record; null before `Framework_Load` and after `FreeServiceInfo` on it.
  [[nodiscard]] std::shared_ptr<PKCS11_SERVICE_INFO> p11ServiceInfo() const noexcept {
    return p11ServiceInfo_;
  }
  void setP11ServiceInfo(std::shared_ptr<PKCS11_SERVICE_INFO> record) noexcept {
    p11ServiceInfo_ = std::move(record);
  }

  // ---- Lifecycle ----

  /// Makes the bridge and an empty record and loads the module. A second load is refused.
  [[nodiscard]] bool Framework_Load() noexcept;

  /// Unloads the module; the bridge stays. Call nothing on the framework afterwards.
  bool Framework_Unload() noexcept;

  /// Resets the record (no slot, no session, no counts) and initialises the module. A module that is
  /// initialised already is a success.
  [[nodiscard]] bool Framework_Initialize() noexcept;

  /// Finalises the module and empties the record. A module that refuses leaves the record as it is.
  bool Framework_Finalize() noexcept;

  /// Loads and initialises.
  [[nodiscard]] bool OpenFrameworkService() noexcept;

  /// Loads, initialises, finalises and unloads a framework that was never loaded. On any other it does
  /// nothing and answers false.
  bool CloseFrameworkService() noexcept;

  // ---- The card and its session ----

  /// Selects the card in the named reader (see P11Bridge::pkcs11_FindSlot for the name): the record
  /// then holds its slot, slot information and token information, and no session (hSession 0).
  /// On failure the record is released.
  [[nodiscard]] bool EnumCards(const Text& readerName) noexcept;

  /// Opens a read-only session on the card in the named reader and replaces the record. A session that
  /// the old record held stays open. `ignoredRecord` is not used. On failure the record is unchanged.
  [[nodiscard]] bool OpenCardSession(const Text& readerName,
                                     const std::shared_ptr<PKCS11_SERVICE_INFO>& ignoredRecord) noexcept;

  /// Closes the record's session. `ignored` is not used.
  [[nodiscard]] bool CloseCardSession(const Text& readerName, const void* ignored) noexcept;

  /// True when the card in the reader is not the one of the record any more, or that cannot be told.
  /// `readerName`: NUL-terminated, compared with the start of the record's slot description; null or
  /// empty: not compared.
  [[nodiscard]] bool IsCardStateChanged(const char* readerName) noexcept;

  /// Posts the distributed notification "TokenNotify" with `object` when the record, as last read, has
  /// a slot, a session without a device error, and token flags of exactly 7. Always false. No
  /// Cryptoki call.
  bool CheckEvent(const std::shared_ptr<PKCS11_SERVICE_INFO>& record, const Text& object) noexcept;

  // ---- Keys and certificates ----

  /// Lists the card's key pairs and the certificates that belong to them in the record. `ignored` is
  /// not used. Fails as a whole: then both lists are emptied and the record is released. Only an RSA
  /// or EC key whose public value has no readable length is left out instead.
  [[nodiscard]] bool EnumCardKeys(const Text& ignored) noexcept;

  /// True when `record` lists a key at `index` and `key` is not null. The key is not handed back.
  /// An index outside the list ends the process with a message.
  [[nodiscard]] bool GetKeyInfo(const std::shared_ptr<PKCS11_SERVICE_INFO>& record, std::int32_t index,
                                const std::shared_ptr<PKCS11_ASYMKEY_INFO>& key) noexcept;

  /// True when the certificate listed for the object's CKA_ID, or else `certificate`, has data. The
  /// choice is logged, not handed back. The reader name is compared with the record's slot
  /// description; null or empty: not compared.
  [[nodiscard]] bool BindingKeyCert(const Text& readerName, CK_OBJECT_HANDLE object,
                                    const std::shared_ptr<PKCS11_CERTIFICATEOBJ_INFO>& certificate) noexcept;

  /// Empties both lists of the stored record and releases the record passed in: its lists are emptied
  /// too, and when it is the stored one the framework holds none afterwards. Always true.
  bool FreeServiceInfo(std::shared_ptr<PKCS11_SERVICE_INFO> record) noexcept;

  /// Empties the stored list of keys; a key that somebody still holds loses its value and its name.
  /// Always true.
  bool FreeAllKeyInfo() noexcept;

  /// Empties the stored list of certificates; one that somebody still holds loses its data. Always
  /// true.
  bool FreeAllCertInfo() noexcept;

  // ---- Card operations ----
  //
  // Conventions: a key is a record of the current list; a null one reads as a key with the handle 0 and
  // without a name. `readerName`: NUL-terminated, compared with the start of the record's slot description;
  // null or empty: not compared. Apart from the login all work in the record's session and fail without one.
  // Outputs may be left with any content after a failure, but never beyond their capacity.

  /// Logs the user in, in the session of `record` (null: 0). A user who is logged in already is a success.
  /// When the card refuses, `outRemainingTries` gets what the module reports as the number of tries left (0
  /// when it reports none) and the stored record the session information with it; otherwise it is not
  /// written. `pin`: as for P11Bridge::pkcs11_UserLogin.
  [[nodiscard]] bool PerformUserLogin(const std::shared_ptr<PKCS11_SERVICE_INFO>& record, const CK_BYTE* pin,
                                      CK_ULONG pinLen, CK_ULONG* outRemainingTries) noexcept;

  /// Always false: key exchange does not go through the framework.
  [[nodiscard]] bool PerformGenSessionSymKey(const void* ignored1, const void* ignored2, const void* ignored3,
                                             const void* ignored4, const void* ignored5) noexcept;

  /// Signs data as given, neither hashed nor wrapped, with the mechanism that the key's name asks for: PSS
  /// with SHA-256 when it contains "RSA" and "PSS" (in any letter case), raw RSA when it contains "RSA". The
  /// algorithm name is only logged, the flag word ignored.
  ///
  /// `ioSignatureLen` (null: failure): the capacity in bytes on entry; then the length of the modulus, and
  /// after a raw signature that of the signature. Left alone where the private key is not found.
  /// `outSignature`: its room limits the capacity, so that a caller can hand on a larger one and still knows
  /// what was reported. Without data (a null pointer): only the length is wanted.
  ///
  /// What is a success does not mean that there is a signature, by design: nothing is written for a key
  /// without "RSA" in its name and for PSS, and after a failing raw signature as much of the working buffer
  /// as fits is copied. Callers judge by the bytes. A raw signature longer than the capacity is a failure and
  /// not copied; an EC key is one too, since it has no modulus.
  [[nodiscard]] bool PerformSignHash(const char* readerName, const std::shared_ptr<PKCS11_ASYMKEY_INFO>& key,
                                     const Text& algorithmName, CK_ULONG ignoredFlag, const CK_BYTE* data,
                                     CK_ULONG dataLen, std::span<CK_BYTE> outSignature,
                                     CK_ULONG* ioSignatureLen) noexcept;

  /// Decrypts (see P11Bridge::pkcs11_genDecryptOAEP; by PKCS #1 v1.5, whatever the name says).
  /// `outPlainLen`: the length of the plain text in bytes; `capacity`: that of `outPlain`.
  [[nodiscard]] bool PerformOAEPDecrypt(const char* readerName,
                                        const std::shared_ptr<PKCS11_ASYMKEY_INFO>& key,
                                        CK_MECHANISM_TYPE hash, const CK_BYTE* cipher, CK_ULONG cipherLen,
                                        CK_BYTE* outPlain, CK_ULONG* outPlainLen, CK_ULONG capacity) noexcept;

  /// The same without a hash.
  [[nodiscard]] bool PerformPKCS1Decrypt(const char* readerName,
                                         const std::shared_ptr<PKCS11_ASYMKEY_INFO>& key,
                                         const CK_BYTE* cipher, CK_ULONG cipherLen, CK_BYTE* outPlain,
                                         CK_ULONG* outPlainLen, CK_ULONG capacity) noexcept;

 private:
  [[nodiscard]] bool isReady(const char* readerName) const noexcept;
  [[nodiscard]] bool selectCard(const Text& readerName) noexcept;
  [[nodiscard]] bool listKeysAndCertificates() noexcept;

  // In this order: the record is released before the bridge.
  PlatformServices services_;
  AtomicProperty<std::shared_ptr<P11Bridge>> p11Bridge_;
  std::shared_ptr<PKCS11_SERVICE_INFO> p11ServiceInfo_;
};

}  // namespace mirel
