#pragma once

#include <memory>
#include <mutex>
#include <optional>

#include "bridge/cryptoki.h"
#include "host/Failure.h"
#include "host/Host.h"

namespace mirel {

class FailureDiary;
class MirelSCToken;

/// Watches, as the platform does, whether the card that became a token is still in its reader. When it is
/// not, the token has ended for good: whoever uses it drops it. All who use the token share one, also from
/// several threads.
class CardWatch {
 public:
  /// `reader`: with the card that was inserted.
  CardWatch(const std::shared_ptr<MirelSCToken>& token, Reader reader);

  /// Asks the module. Nothing: the card is there, and the token's session with it. Otherwise why the card
  /// must not be given anything: that another one is there, that it is gone, or that it cannot be told. The
  /// diary is written over.
  [[nodiscard]] std::optional<Failure> look(FailureDiary& diary);

  /// Why the token has ended; nothing while it has not. Asks nobody.
  [[nodiscard]] std::optional<Failure> ended() const;

  /// Ends the token when the failure is that the card is gone.
  void learnFrom(const Failure& failure);

  /// Whether the token was made of another card than the reader held before. Asks nobody. Before anything
  /// else.
  [[nodiscard]] std::optional<Failure> anotherCardAtInsertion();

 private:
  [[nodiscard]] std::optional<Failure> compared(const CK_TOKEN_INFO& token) const;
  [[nodiscard]] std::optional<Failure> lookAtCard(FailureDiary& diary) const;
  [[nodiscard]] Failure gone(std::string why) const;

  std::weak_ptr<MirelSCToken> token_;
  Reader reader_;
  mutable std::mutex mutex_;
  std::optional<Failure> ended_;  // with the mutex
};

}  // namespace mirel
