#pragma once

#include <cstddef>
#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>
#include <vector>

#include "ExitCode.h"
#include "host/Finding.h"
#include "host/Host.h"
#include "host/ReaderWatch.h"
#include "platform/CardService.h"

namespace mirel::cli {

// What the helpers of `watch` send, as texts without line ends. A helper has loaded the module and the
// library of the card service, so none of it is trusted: what is no such message is none.

/// A failure whose words come from another process.
struct ToldFailure {
  std::string id;
  int exitCode = 0;
  std::string what;
  std::string why;
  std::string advice;

  friend bool operator==(const ToldFailure&, const ToldFailure&) = default;
};
[[nodiscard]] ToldFailure toldFailure(const Failure& failure);
/// The code that goes with its id: the number itself may be anything. kInternal where there is no such id.
[[nodiscard]] ExitCode exitCodeOf(const ToldFailure& failure);
/// As the member "error" of what a command prints.
[[nodiscard]] nlohmann::ordered_json jsonOf(const ToldFailure& failure);
[[nodiscard]] std::string messageOf(const Failure& failure);
[[nodiscard]] std::optional<ToldFailure> failureIn(const std::string& message);
/// "WHAT: WHY; ADVICE"
[[nodiscard]] std::string wordsOf(const ToldFailure& failure);

/// What the card service tells.
struct ServiceNews {
  bool answers = false;
  std::string evidence;  ///< why it does not
  std::vector<WatchedReader> readers;
};
[[nodiscard]] std::string messageOf(const CardServiceView& view);
[[nodiscard]] std::optional<ServiceNews> serviceIn(const std::string& message);

/// The module's slots.
[[nodiscard]] std::string messageOf(const std::vector<WatchedReader>& slots);
[[nodiscard]] std::optional<std::vector<WatchedReader>> slotsIn(const std::string& message);

/// Which card is in a reader, where it became no token.
[[nodiscard]] std::string messageOf(const Reader& reader);
[[nodiscard]] std::optional<Text> serialNumberIn(const std::string& message);

/// A card that was inserted, and what its token publishes.
struct CardNews {
  Text tokenLabel;
  Text serialNumber;
  Text instanceID;
  std::size_t numCertificates = 0;
  std::size_t numKeys = 0;
  std::optional<Finding> worst;           ///< nothing: all is well
  std::optional<ToldFailure> incomplete;  ///< for which an item may be missing
};
[[nodiscard]] std::string messageOf(const InsertedCard& card, const CardReport& report);
[[nodiscard]] std::optional<CardNews> cardIn(const std::string& message);

}  // namespace mirel::cli
