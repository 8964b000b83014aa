#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "ExitCode.h"
#include "Files.h"
#include "Options.h"
#include "host/Host.h"
#include "host/KeyChoice.h"
#include "host/KeyClient.h"
#include "host/ModuleFile.h"
#include "host/PinSource.h"

namespace mirel::cli {

/// What is asked of a key, and of which.
struct KeyRequest {
  SecKeyAlgorithm algorithm;
  std::unique_ptr<FileInput> input;
  ChosenKey chosen;
};

/// One run of a command: its options, the host, the card, and the errands that commands have in common.
class Session {
 public:
  /// `options`: outlive the session.
  Session(PlatformServices services, const Options& options, ModuleChoice module);
  Session(const Session&) = delete;
  Session& operator=(const Session&) = delete;
  ~Session();

  [[nodiscard]] const Options& options() const noexcept { return options_; }
  [[nodiscard]] const PlatformServices& services() const noexcept { return services_; }
  [[nodiscard]] const ModuleChoice& module() const noexcept { return module_; }

  /// What the program ends with when the command succeeds.
  void setExitCode(ExitCode code) noexcept { exitCode_ = code; }
  [[nodiscard]] ExitCode exitCode() const noexcept { return exitCode_; }

  /// The reader that the options name; null: none.
  [[nodiscard]] Text readerName() const;

  /// The readers that hold a card, or the one that the options name.
  [[nodiscard]] Result<std::vector<Reader>> readers();

  /// What was found last, without asking the module again.
  [[nodiscard]] const std::vector<Reader>& lastFound() const noexcept { return host_.lastFound(); }

  /// All readers that the module has.
  [[nodiscard]] Result<std::vector<Reader>> slots() { return host_.slots(); }

  /// Why the module shows no card.
  [[nodiscard]] Host::NoCard whyNoCard(std::string what) { return host_.whyNoCard(std::move(what)); }

  /// Inserts the card in the reader of the options.
  [[nodiscard]] Result<void> insertCard();
  /// Inserts the card in the reader of that name, whatever the options say.
  [[nodiscard]] Result<void> insertCardFrom(const Text& reader);
  /// The same, with a client of the card's token.
  [[nodiscard]] Result<void> connect();

  // After the card was inserted.
  [[nodiscard]] const InsertedCard& card() const { return card_.value(); }
  /// All that can be told of the card without a trial; after a login of the client also what shows only then.
  [[nodiscard]] CardReport examine(bool afterLogin = false);
  /// The failure of a request to that key, after a login, with what the card's objects say of its cause.
  [[nodiscard]] Failure explained(Failure failure, const PublishedKey& key);
  /// The key that the options name.
  [[nodiscard]] Result<ChosenKey> chosenKey() const;
  /// What the card says about the tries of its PIN just now; empty when that is nothing, or not known.
  [[nodiscard]] std::string remarkOnPin();

  /// The failure, where the PIN was refused with what the card says about its tries.
  [[nodiscard]] Failure withRemarkOnPin(Failure failure);

  // After `connect`.
  [[nodiscard]] KeyClient& client() const { return *client_; }
  [[nodiscard]] PinSource& pins() const { return *pins_; }

  /// Connects, for a request of which all else that the options say was looked at first. Where they name no
  /// algorithm, it is the operation's for that type of key.
  [[nodiscard]] Result<KeyRequest> connectFor(KeyOperation operation);

  /// Writes to the file of the options, or standard output (see `writeFile`).
  [[nodiscard]] Result<void> write(std::span<const std::uint8_t> data, mode_t mode) const;

 private:
  [[nodiscard]] Result<std::optional<SecKeyAlgorithm>> namedAlgorithm(KeyOperation operation) const;

  const Options& options_;
  PlatformServices services_;
  ModuleChoice module_;
  ExitCode exitCode_ = ExitCode::kSuccess;
  Host host_;
  std::optional<InsertedCard> card_;
  std::unique_ptr<KeyClient> client_;
  std::unique_ptr<PinSource> pins_;
};

}  // namespace mirel::cli
