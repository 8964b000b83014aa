#pragma once

#include <memory>
#include <string>

#include "host/PinSource.h"

namespace mirel {

/// Another source, of which is noted whether it has given a PIN: without one none was sent to the card.
class NotedPins final : public PinSource {
 public:
  /// `source`: outlives this.
  explicit NotedPins(PinSource& source) : source_{source} {}

  [[nodiscard]] Result<std::shared_ptr<const SecretText>> askForPin(const std::string& card) override {
    auto pin = source_.askForPin(card);
    hasGiven_ = hasGiven_ || (pin && *pin);
    return pin;
  }
  void showRefusal(const std::string& text) override { source_.showRefusal(text); }
  [[nodiscard]] bool canAskAgain() const override { return source_.canAskAgain(); }

  [[nodiscard]] bool hasGiven() const noexcept { return hasGiven_; }

 private:
  PinSource& source_;
  bool hasGiven_ = false;
};

}  // namespace mirel
