#pragma once

#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/Bytes.h"
#include "platform/TokenKit.h"
#include "token/BasedTokenKit.h"

namespace mirel {

/// What the host's tokens publish.
class HostKeychainContents final : public TKTokenKeychainContents {
 public:
  void fillWithItems(const std::vector<std::shared_ptr<TKTokenKeychainItem>>& items) noexcept override;
  [[nodiscard]] std::vector<std::shared_ptr<TKTokenKeychainItem>> items() const noexcept override;
  [[nodiscard]] std::shared_ptr<TKTokenKeychainKey> keyForObjectID(const Text& objectID,
                                                                   TKErrorPointer outError) noexcept override;

  /// False until a token has filled it, be it with nothing.
  [[nodiscard]] bool filled() const noexcept { return items_.has_value(); }

 private:
  std::optional<std::vector<std::shared_ptr<TKTokenKeychainItem>>> items_;
  std::map<std::u16string, std::shared_ptr<TKTokenKeychainKey>, std::less<>> keys_;  // the first of each name
};

/// The host's side of a token.
class HostSmartCardToken final : public TKSmartCardToken {
 public:
  [[nodiscard]] bool initWithSmartCard(
      const std::shared_ptr<TKSmartCard>& smartCard, const Bytes& AID, const Text& instanceID,
      const std::shared_ptr<TKSmartCardTokenDriver>& tokenDriver) noexcept override;
  [[nodiscard]] std::shared_ptr<TKTokenKeychainContents> keychainContents() const noexcept override {
    return contents_;
  }

  /// Null until the token has been initialised.
  [[nodiscard]] const Text& instanceID() const noexcept { return instanceID_; }
  [[nodiscard]] const HostKeychainContents& contents() const noexcept { return *contents_; }

 private:
  Text instanceID_;
  std::shared_ptr<HostKeychainContents> contents_ = std::make_shared<HostKeychainContents>();
};

/// Allocates the host's objects for the card in one reader, and remembers the token it allocated last. Each
/// session has a connection to the card of its own.
class HostTokenKit final : public BasedTokenKit {
 public:
  explicit HostTokenKit(Text readerName) : readerName_{std::move(readerName)} {}

  [[nodiscard]] std::shared_ptr<TKSmartCardToken> allocSmartCardToken() noexcept override;
  [[nodiscard]] std::shared_ptr<TKSmartCardTokenSession> allocTokenSession() noexcept override;
  [[nodiscard]] std::shared_ptr<TKTokenKeychainCertificate> allocKeychainCertificate() noexcept override;
  [[nodiscard]] std::shared_ptr<TKTokenKeychainKey> allocKeychainKey() noexcept override;
  [[nodiscard]] std::shared_ptr<TKTokenSmartCardPINAuthOperation> allocPINAuthOperation() noexcept override;
  [[nodiscard]] std::shared_ptr<TKSmartCardPINFormat> allocPINFormat() noexcept override;

  /// Null before the first, and when nobody keeps it any more.
  [[nodiscard]] std::shared_ptr<HostSmartCardToken> lastToken() const noexcept { return lastToken_.lock(); }

 private:
  Text readerName_;
  // Its items hold the services, which hold this kit: to own it would keep all of them for good.
  std::weak_ptr<HostSmartCardToken> lastToken_;
};

/// A connection to the card in the reader of that name.
[[nodiscard]] std::shared_ptr<TKSmartCard> cardInReader(const Text& readerName);

/// A request for exactly that algorithm.
class HostKeyAlgorithm final : public TKTokenKeyAlgorithm {
 public:
  explicit HostKeyAlgorithm(SecKeyAlgorithm algorithm) : algorithm_{algorithm} {}
  [[nodiscard]] bool isAlgorithm(SecKeyAlgorithm algorithm) const noexcept override {
    return algorithm == algorithm_;
  }

 private:
  SecKeyAlgorithm algorithm_;
};

}  // namespace mirel
