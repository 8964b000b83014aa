#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <vector>

#include "platform/AtomicProperty.h"
#include "platform/Bytes.h"
#include "platform/PlatformServices.h"
#include "platform/SecretText.h"
#include "platform/Text.h"

namespace mirel {

class MirelCTKFramework;
class PKCS11_ASYMKEY_INFO;
class PKCS11_CERTIFICATEOBJ_INFO;

/// The token service provider: what the token objects call, with the name of the reader that holds the
/// card (the "token name"). Owns one card framework and keeps no state of the card itself.
///
/// Conventions
/// - Records are handed out and taken back as the framework's own objects, never as copies. A record
///   that is not in the framework's current list, for instance one from before the last enumeration,
///   counts as unknown.
/// - Only `getSupportedTokenDescription`, `openTKSmartCardTokenSession`, `getTokenPubKeys`,
///   `getTokenCerts` and the three operations on secrets ask the card; all others look into what those
///   have read.
/// - Without a framework every query finds nothing.
/// - Nothing throws. The provider takes no lock of its own: one thread at a time, except for the accessors of
///   `pCTKFramework`. Threads that share a provider use its gate.
class CryptTKitSProvider final : public std::enable_shared_from_this<CryptTKitSProvider> {
 public:
  using KeyList = std::vector<std::shared_ptr<PKCS11_ASYMKEY_INFO>>;
  using CertificateList = std::vector<std::shared_ptr<PKCS11_CERTIFICATEOBJ_INFO>>;

  explicit CryptTKitSProvider(PlatformServices services) noexcept;
  CryptTKitSProvider(const CryptTKitSProvider&) = delete;
  CryptTKitSProvider& operator=(const CryptTKitSProvider&) = delete;
  ~CryptTKitSProvider();

  /// Null before the first initialisation and after a successful release.
  [[nodiscard]] std::shared_ptr<MirelCTKFramework> pCTKFramework() const noexcept {
    return pCTKFramework_.get();
  }
  void setPCTKFramework(std::shared_ptr<MirelCTKFramework> framework) noexcept {
    pCTKFramework_.set(std::move(framework));
  }

  /// The gate of this provider. Those who share the provider hold it around each operation, and around
  /// several where a later one works with what an earlier one has read: every operation replaces the lists
  /// and the session of the one before. Each provider has its own, so different cards do not wait for one
  /// another here.
  ///
  /// Never call the platform's token framework while holding it: the platform may wait for an operation of
  /// another session, which waits for the gate. Never take it twice in one thread, nor two gates at once.
  /// Below it lie the lock around each Cryptoki call, which the bridge takes, and such as take no other:
  /// those of atomic properties, of an observer and of the log.
  [[nodiscard]] std::mutex& gate() noexcept { return gate_; }

  /// Makes the framework and opens its service. Returns this provider, or null when that fails (drop
  /// the provider then). Call it on a shared provider.
  [[nodiscard]] std::shared_ptr<CryptTKitSProvider> initWithMirelCTKFramwork() noexcept;

  /// Closes the framework's service and drops the framework. False, and the framework stays, when the
  /// service cannot be closed. True when there is none.
  bool releaseWithMirelCTKFramework() noexcept;

  /// The token's instance identifier: the bytes of the card's token information from its label up to the
  /// first zero byte, then those from its serial number up to the first zero byte, one character for
  /// each. The fields of a module that pads with blanks as the standard has it run into one another,
  /// and the flags end them. Null without a framework, empty when the card cannot be read; both are
  /// logged.
  [[nodiscard]] Text getSupportedTokenDescription(const Text& tokenName) noexcept;

  /// Opens the card session. Returns its handle (CK_SESSION_HANDLE): all-ones when no session is open,
  /// 0 without a card record.
  std::uint64_t openTKSmartCardTokenSession(const Text& tokenName) noexcept;

  /// Reads the card's objects and appends its key records to `outKeys` (null: only reads).
  [[nodiscard]] bool getTokenPubKeys(const Text& tokenName, KeyList* outKeys) noexcept;

  /// Reads the card's objects and appends the records of its certificates that have data to
  /// `outCertificates` (null: only reads).
  [[nodiscard]] bool getTokenCerts(const Text& tokenName, CertificateList* outCertificates) noexcept;

  /// The key's name; empty for an unknown record.
  [[nodiscard]] Text getTokenKeyName(const std::shared_ptr<PKCS11_ASYMKEY_INFO>& key) noexcept;

  /// The object identifier of the certificate's keychain item, "cert_<label>_<ID>"; empty for an unknown
  /// record.
  [[nodiscard]] Text getCertName(const std::shared_ptr<PKCS11_CERTIFICATEOBJ_INFO>& certificate) noexcept;

  /// The certificate's ID as text; empty for an unknown record, which is logged.
  [[nodiscard]] Text getCertID(const std::shared_ptr<PKCS11_CERTIFICATEOBJ_INFO>& certificate) noexcept;

  /// The first key with that ID; null when there is none.
  [[nodiscard]] std::shared_ptr<PKCS11_ASYMKEY_INFO> getKeyFromCertID(const Text& certificateID) noexcept;

  /// The encoded certificate; null for an unknown record.
  [[nodiscard]] Bytes getCertData(const std::shared_ptr<PKCS11_CERTIFICATEOBJ_INFO>& certificate) noexcept;

  /// The key's modulus or point; null for an unknown record.
  [[nodiscard]] Bytes getPublicKeyValue(const std::shared_ptr<PKCS11_ASYMKEY_INFO>& key) noexcept;

  /// Opens a new session on the card and logs the user in. `pinLen`: the length as the caller counts it; 1
  /// to 8 is handed on with the first 8 bytes of the PIN in UTF-8, whatever their number, and anything else
  /// is refused. True when the card accepted the PIN. `outRemains` (null: not wanted) gets the number of
  /// tries left as the module reports it after a refusal, else 5.
  [[nodiscard]] bool userLogin(const Text& tokenName, const SecretText& pin, std::uint64_t pinLen,
                               std::optional<std::uint64_t>* outRemains) noexcept;

  /// The longest signature, in bytes: RSA keys up to 2048 bits.
  static constexpr std::uint64_t kMaxSignatureLen = 256;

  /// The longest plain text, in bytes.
  static constexpr std::uint64_t kMaxPlainLen = 2000;

  /// Reads the card's objects and signs the first `dataLen` bytes of `data` with the key of that ID (see
  /// MirelCTKFramework::PerformSignHash for what decides the mechanism, and for successes without a
  /// signature). `ioSignatureLen`: the caller's capacity on entry; then the length as the framework reports
  /// it. True: `outSignature` has that many bytes. Otherwise it is left alone; so are both when the card
  /// cannot be read. Refused: a `dataLen` beyond the data, a null `ioSignatureLen`, and a result longer
  /// than the capacity or kMaxSignatureLen.
  [[nodiscard]] bool PerformSignHash(const Text& tokenName, const Text& keyName, const Text& algName,
                                     std::uint64_t dwFlag, const Bytes& data, std::uint64_t dataLen,
                                     Bytes* outSignature, std::uint64_t* ioSignatureLen) noexcept;

  /// Reads the card's objects and, for an algorithm name that contains "RSA" (in any letter case) and a
  /// `padFlag` of 1, decrypts with the key of that ID, by PKCS #1 v1.5 whatever the algorithm. True:
  /// `outPlain` has `*ioPlainLen` bytes. Otherwise it is left alone. With any other name or flag the card is
  /// not asked, and `outPlain` gets as many zeros as `*ioPlainLen` says, kMaxPlainLen at most.
  [[nodiscard]] bool PerformDecryption(const Text& tokenName, const Text& keyName, const Text& algName,
                                       std::uint64_t padFlag, const std::uint8_t* cipher,
                                       std::uint64_t cipherLen, Bytes* outPlain,
                                       std::uint64_t* ioPlainLen) noexcept;

 private:
  std::mutex gate_;
  PlatformServices services_;
  AtomicProperty<std::shared_ptr<MirelCTKFramework>> pCTKFramework_;
};

}  // namespace mirel
