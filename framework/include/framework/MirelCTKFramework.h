#pragma once

#include <cstdint>
#include <memory>

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
/// - Without a bridge every operation fails and touches no module.
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

 private:
  [[nodiscard]] bool selectCard(const Text& readerName) noexcept;
  [[nodiscard]] bool listKeysAndCertificates() noexcept;

  // In this order: the record is released before the bridge.
  PlatformServices services_;
  AtomicProperty<std::shared_ptr<P11Bridge>> p11Bridge_;
  std::shared_ptr<PKCS11_SERVICE_INFO> p11ServiceInfo_;
};

}  // namespace mirel
