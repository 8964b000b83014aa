#pragma once

#include <memory>

#include "platform/CardService.h"
#include "platform/Text.h"

namespace mirel::cli {

/// Watches, while the user is asked for something, whether a card stays in its reader. Asks the card service
/// alone: a call of the module could change what the token knows of the card.
class CardAlarm {
 public:
  /// Begins to watch. `service`: null, or without that reader, or with several of that name: then there is
  /// never an alarm.
  CardAlarm(const std::shared_ptr<CardService>& service, const Text& reader);
  CardAlarm(const CardAlarm&) = delete;
  CardAlarm& operator=(const CardAlarm&) = delete;
  ~CardAlarm();

  /// To be looked at for input: there is some once the card, its reader or the service has gone, be it for a
  /// moment. -1: there is never any.
  [[nodiscard]] int descriptor() const noexcept;

 private:
  struct State;
  std::shared_ptr<State> state_;  // the thread's too; null: nobody watches
};

}  // namespace mirel::cli
