#pragma once

#include <memory>
#include <mutex>
#include <string>

#include "bridge/cryptoki.h"
#include "host/Host.h"
#include "host/Result.h"

namespace mirel {

class FailureDiary;
class HostToken;

/// Whether of a label and a serial number that the module gave before one is empty by now, and nothing else
/// is new: another card, or one that a busy module could not read. `before`: was read.
[[nodiscard]] bool tellsLess(const Reader& before, const Text& label, const Text& serialNumber);

/// Whether a card with that label and serial number may be the one that was in the reader before, which was
/// read; the failure says that it is another one, or that this cannot be told.
[[nodiscard]] Result<void> checkSame(const Reader& before, const Text& label, const Text& serialNumber);

/// The card has left the reader of that name.
[[nodiscard]] Failure cardGone(const Text& reader, std::string why);

/// Watches, as the platform does, whether the card that became a token is still in its reader. When it is
/// not, the token has ended for good: whoever uses it drops it. All who use the token share one, also from
/// several threads.
class CardWatch {
 public:
  /// `reader`: with the card that was inserted.
  CardWatch(const std::shared_ptr<HostToken>& token, Reader reader);

  /// Whether the card is there, and the token's session with it. Asks the module. The failure says why the
  /// card must not be given anything: that another one is there, that it is gone, or that it cannot be told.
  /// The diary is written over.
  [[nodiscard]] Result<void> look(FailureDiary& diary);

  /// Whether the token goes on; the failure says why it has ended. Asks nobody.
  [[nodiscard]] Result<void> goesOn() const;

  /// Ends the token when the failure is that the card is gone.
  void learnFrom(const Failure& failure);

  /// Whether the token was made of the card that the reader held before. Asks nobody. Before anything else.
  [[nodiscard]] Result<void> checkInsertion();

 private:
  [[nodiscard]] Result<void> compare(const CK_TOKEN_INFO& token) const;
  [[nodiscard]] Result<void> lookAtCard(FailureDiary& diary) const;
  [[nodiscard]] Failure gone(std::string why) const;
  [[nodiscard]] Failure notLookedAt(const FailedCall& cause) const;

  std::weak_ptr<HostToken> token_;
  Reader reader_;
  mutable std::mutex mutex_;
  Result<void> goesOn_;  // with the mutex
};

}  // namespace mirel
