#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace mirel {

/// A reader as the card service of the system (PC/SC) sees it.
struct ServiceReader {
  enum class Card {
    kNone,
    kPresent,
    kMute,     ///< there is one, and it does not answer
    kUnknown,  ///< the service does not tell, or the reader has just gone
  };

  std::string name{};  ///< the service's bytes
  Card card = Card::kUnknown;
  bool exclusive = false;  ///< another program uses the card, and lets nobody else
  bool inUse = false;      ///< another program uses the card
  std::string atr{};       ///< of the card, in hexadecimal digits; empty where the service gives none
  /// Another number when a card came or went in between, also where that shows by nothing else; always 0
  /// where the service does not count.
  std::uint32_t changes = 0;

  friend bool operator==(const ServiceReader&, const ServiceReader&) = default;
};

/// What the card service tells of the readers.
struct CardServiceView {
  enum class State {
    kNotThere,  ///< the system has no PC/SC library, or not a whole one
    kSilent,    ///< the service does not run, refuses, or did not answer in time
    kAnswers,
  };

  State state = State::kNotThere;
  std::string evidence{};                ///< why it does not answer, UTF-8; empty where it does
  std::vector<ServiceReader> readers{};  ///< in the service's order
  /// Another number when the service has stopped in between; of a CardServiceWatch alone.
  std::uint32_t connection = 0;

  friend bool operator==(const CardServiceView&, const CardServiceView&) = default;
};

/// Follows what the card service tells. Goes on when the service stops, and connects to it again when it is
/// back. For one thread, except for `cancel`.
class CardServiceWatch {
 public:
  CardServiceWatch() = default;
  CardServiceWatch(const CardServiceWatch&) = delete;
  CardServiceWatch& operator=(const CardServiceWatch&) = delete;
  virtual ~CardServiceWatch() = default;

  /// What the service tells, as soon as that is something else than this has returned last; the same once
  /// more after `limit`. Connects to no card and changes nothing. A service that does not answer may keep it
  /// for longer.
  [[nodiscard]] virtual CardServiceView next(std::chrono::milliseconds limit) noexcept = 0;

  /// Ends the `next` that another thread is in, and all later ones at once. To be repeated until that thread
  /// has come back: a call of the service that is just about to begin may miss it.
  virtual void cancel() noexcept = 0;
};

/// The card service of the system, through which PKCS #11 modules reach the readers.
class CardService {
 public:
  CardService() = default;
  CardService(const CardService&) = delete;
  CardService& operator=(const CardService&) = delete;
  virtual ~CardService() = default;

  /// What the service tells just now. Connects to no card and changes nothing. Answers within a fixed time:
  /// a service that takes longer is kSilent.
  [[nodiscard]] virtual CardServiceView look() noexcept = 0;

  /// Begins to follow the service; asks it nothing yet. Null where there is no memory for that.
  [[nodiscard]] virtual std::unique_ptr<CardServiceWatch> watch() noexcept = 0;
};

/// How long the service of the running system may take for one look.
inline constexpr std::chrono::milliseconds kCardServiceLimit{3000};

/// The card service of the running system.
[[nodiscard]] std::shared_ptr<CardService> systemCardService();

/// The same, reached through that PC/SC library (a path, or a name that the system's loader finds).
[[nodiscard]] std::shared_ptr<CardService> cardServiceOf(std::string library,
                                                         std::chrono::milliseconds limit);

}  // namespace mirel
