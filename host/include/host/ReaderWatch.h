#pragma once

#include <chrono>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "platform/CardService.h"
#include "platform/Text.h"

namespace mirel {

struct Reader;

/// A reader at one moment.
struct WatchedReader {
  enum class Card { kNone, kPresent, kUnknown };

  /// As in a slot description (see Reader::name). Null: there is a reader whose name is not known just now.
  Text name;
  Card card = Card::kUnknown;
  /// Of a card that is present: another text for another card, or another insertion of the same one. Empty
  /// where that cannot be told. Those of the card service and those of the module cannot be compared.
  std::string mark{};
  bool isServices = false;  ///< the card service says so, not the module

  friend bool operator==(const WatchedReader&, const WatchedReader&) = default;
};

[[nodiscard]] std::vector<WatchedReader> watchedReaders(const CardServiceView& service);

/// `slots`: with and without a token. A token that is not initialised is no card: modules of software tokens
/// always list one, and under another name after each change.
[[nodiscard]] std::vector<WatchedReader> watchedReaders(const std::vector<Reader>& slots);

/// What happened at a reader.
struct ReaderEvent {
  enum class Kind { kInsertion, kRemoval };

  Kind kind;
  Text reader;

  friend bool operator==(const ReaderEvent&, const ReaderEvent&) = default;
};

/// Turns what is seen of the readers into events, as the platform sees them: a card that is swapped is
/// removed, then another one inserted, and with a reader its card goes. A reader of which nothing is known
/// just now stays as it was.
class ReaderWatch {
 public:
  /// `readers`: all that there are. Of several with one name the first counts.
  [[nodiscard]] std::vector<ReaderEvent> take(const std::vector<WatchedReader>& readers);

 private:
  std::map<std::u16string, WatchedReader, std::less<>> inserted_;  // by their names
};

/// Decides who is asked for the readers: the card service; and the module where that does not answer, or
/// where the module has slots that it does not know, such as those of software tokens. A module knows only
/// what its calls tell, which may take long or change a card's state, so it is left alone where that can be.
///
/// Asks nobody and has no clock: whoever asks tells it here.
class ReaderSources {
 public:
  using Time = std::chrono::steady_clock::time_point;

  /// The shortest and the longest time from one look at the module to the next. In between a look may take a
  /// tenth of the time.
  static constexpr std::chrono::milliseconds kShortestPause{1000};
  static constexpr std::chrono::milliseconds kLongestPause{60000};

  /// `readers`: of a service that answers.
  void serviceTells(bool answers, std::vector<WatchedReader> readers);

  void lookBegins(Time now);
  /// `slots`: nothing when the look failed: then what was seen before stays.
  void lookEnds(Time now, const std::optional<std::vector<WatchedReader>>& slots);

  /// When to look at the module; nothing: not before one of the above was called again.
  [[nodiscard]] std::optional<Time> nextLook() const;

  /// All readers, as far as they are known.
  [[nodiscard]] std::vector<WatchedReader> readers() const;

 private:
  [[nodiscard]] bool serviceHas(const Text& name) const;

  std::optional<bool> serviceAnswers_;  // nothing: it has told nothing yet
  std::vector<WatchedReader> services_;
  std::vector<WatchedReader> modules_;  // those that the service did not know
  bool hasLooked_ = false;
  bool isLooking_ = false;
  Time lookBegan_{};
  Time notBefore_{};
};

}  // namespace mirel
