#pragma once

#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "EditedModule.h"
#include "Input.h"
#include "Surroundings.h"
#include "host/Host.h"
#include "host/InputSource.h"
#include "host/KeyClient.h"
#include "host/PinSource.h"

namespace mirel::fuzz {

/// A PIN that the good card does not have, as easily found in a text as the right one.
inline constexpr std::string_view kWrongPin = "W4!gx_9T";

/// The PINs that a user enters, as the input says: the right one when it says nothing. Checks what the user
/// is shown.
class EnteredPins final : public PinSource {
 public:
  explicit EnteredPins(Input& input);

  [[nodiscard]] Result<std::shared_ptr<const SecretText>> askForPin(const std::string& card) override;
  void showRefusal(const std::string& text) override;
  [[nodiscard]] bool canAskAgain() const override { return again_; }

  /// Whether the user enters the right PIN at once.
  [[nodiscard]] bool areGood() const noexcept {
    return pins_.size() == 1 && pins_.front() == kGoodPin && !cancelled_;
  }

 private:
  std::vector<std::string> pins_;  // the last one again and again
  std::size_t numAsked_ = 0;
  bool cancelled_ = false;  // instead of the last one
  bool again_ = true;
};

/// Data at hand, in pieces of the size that the input says.
class GivenData final : public InputSource {
 public:
  GivenData(std::vector<std::uint8_t> data, std::size_t pieceSize)
      : data_{std::move(data)}, pieceSize_{pieceSize} {}

  [[nodiscard]] Result<std::size_t> read(std::span<std::uint8_t> room) override;

 private:
  std::vector<std::uint8_t> data_;
  std::size_t pieceSize_;
  std::size_t position_ = 0;
};

/// A card that was inserted, and a client of its token: what login, signing, decrypting and exchanging have
/// in common.
class KeyRun {
 public:
  /// `keys`: those of the good card.
  KeyRun(Input& input, unsigned keys);

  /// False where the card cannot be inserted, or gives no client: the input has nothing more to say.
  [[nodiscard]] bool hasClient() const noexcept { return client_ != nullptr; }
  [[nodiscard]] KeyClient& client() noexcept { return *client_; }
  [[nodiscard]] Host& host() noexcept { return *host_; }
  [[nodiscard]] EditedModule& module() noexcept { return module_; }
  [[nodiscard]] EnteredPins& pins() noexcept { return pins_; }
  [[nodiscard]] const InsertedCard& card() const noexcept { return *card_; }

  /// One of the published keys, the first when the input says nothing; null when there is none.
  [[nodiscard]] const PublishedKey* keyFrom(Input& input);
  /// Its certificate; null where a card has several of that name.
  [[nodiscard]] const PublishedCertificate* certificateOf(const PublishedKey& key) const;

  /// Whether nothing went wrong so far but what the user entered.
  [[nodiscard]] bool allIsWell() const;
  /// Whether everything that the module said was true.
  [[nodiscard]] bool moduleIsHonest() const { return !module_.hasLied() && !module_.wasChanged(); }

  /// The failure can be shown, and tells no PIN.
  void checkFailure(const Failure& failure) const;

 private:
  EnteredPins pins_;
  Surroundings surroundings_;
  EditedModule module_;
  std::unique_ptr<Host> host_;
  std::optional<InsertedCard> card_;
  std::vector<PublishedKey> keys_;
  std::unique_ptr<KeyClient> client_;
};

}  // namespace mirel::fuzz
