#pragma once

#include <memory>
#include <string>

#include "host/Result.h"
#include "platform/SecretText.h"

namespace mirel {

/// Where the PIN comes from: the part of the platform's PIN dialog.
class PinSource {
 public:
  PinSource() = default;
  PinSource(const PinSource&) = delete;
  PinSource& operator=(const PinSource&) = delete;
  virtual ~PinSource() = default;

  /// The PIN for that card; null when the user cancels. `card`: as it is shown to the user (UTF-8): its label
  /// in quotation marks, with its reader where the label is not the only one of its kind, or is empty.
  [[nodiscard]] virtual Result<std::shared_ptr<const SecretText>> askForPin(const std::string& card) = 0;

  /// Tells the user why the PIN was not accepted (UTF-8).
  virtual void showRefusal(const std::string& text) = 0;

  /// Whether another PIN may be had after one was refused. A source that can only repeat itself must not be
  /// asked again: each time costs a try.
  [[nodiscard]] virtual bool canAskAgain() const = 0;
};

}  // namespace mirel
