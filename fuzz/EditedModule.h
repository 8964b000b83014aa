#pragma once

#include <array>
#include <cstddef>
#include <memory>
#include <span>
#include <string_view>
#include <vector>

#include "Input.h"
#include "host/SoftwareKey.h"
#include "module/Script.h"
#include "platform/DynamicLoader.h"

namespace mirel::fuzz {

/// The keys that a good card may have, each with a certificate: "01" RSA, signs, label "Signer"; "02" RSA,
/// decrypts, "Vault"; "03" P-256, agrees on keys, "Agree". The two RSA keys are the same one.
inline constexpr unsigned kSigner = 1;
inline constexpr unsigned kVault = 2;
inline constexpr unsigned kAgree = 4;
inline constexpr unsigned kAllKeys = kSigner | kVault | kAgree;

/// The RSA key of the good card, whose private half the module uses (1024 bits).
[[nodiscard]] const test::SoftwareKey& goodKey();
/// The certificates of the keys, in their order.
[[nodiscard]] const std::array<test::Value, 3>& goodCertificates();

/// The PIN of the good card. Long and odd enough to be found where it must not be.
inline constexpr std::string_view kGoodPin = "q7#Zk!2x";

/// A PKCS #11 module in this process, without file and loader, whose answers are those of the scripted module
/// (see tests/module/Script.h) for a good card, edited by the input. The input says
/// - what the card holds instead: attributes, objects, texts, flags, readers;
/// - which of the calls are answered otherwise, and how: with a code, with nothing done, with another length,
/// count,
///   handle, value or pointer, or by a card that is pulled out or exchanged at that moment.
/// What it does not say is as it is good, so each byte of an input is about one deviation.
///
/// The module writes nowhere but where its caller gave it room, and does real raw RSA. There can be one at a
/// time.
class EditedModule {
 public:
  /// Takes from the input what the card holds. `input` outlives the module. `keys`: those of the good card,
  /// unless the input wants all.
  EditedModule(Input& input, unsigned keys);
  EditedModule(const EditedModule&) = delete;
  EditedModule& operator=(const EditedModule&) = delete;
  ~EditedModule();

  /// From now on no answer is edited. What was done before stays so.
  void behave() noexcept;

  /// Whether any call was made to answer what is not true, or the card was touched. To fail is no lie.
  [[nodiscard]] bool hasLied() const noexcept;
  /// Whether any call was made to fail.
  [[nodiscard]] bool hasFailed() const noexcept;
  /// Whether the input changed what the card holds, or which functions there are.
  [[nodiscard]] bool wasChanged() const noexcept { return changed_; }

  /// Whether it hands out whole blocks instead of the messages in them.
  [[nodiscard]] bool decryptsRaw() const noexcept;

  [[nodiscard]] test::Script& script() noexcept;
  [[nodiscard]] std::shared_ptr<DynamicLoader> loader();

 private:
  void changeCard(Input& input);

  bool changed_ = false;
};

}  // namespace mirel::fuzz
