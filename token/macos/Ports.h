#pragma once

/// The ports of the token layer on the platform's objects. Each lives for one call into the layer. What the
/// platform raises becomes a log line and the failure that the port's function has.

#import <CryptoTokenKit/CryptoTokenKit.h>

#include <optional>
#include <vector>

#include "Holder.h"
#include "token/TokenKit.h"

@class MirelCTKTokenKeychainKey;
@class MirelSCTokenSession;

namespace mirel {

class CardPort final : public TKSmartCard {
 public:
  /// `card`: nil for a connection to none.
  explicit CardPort(::TKSmartCard* card) noexcept : card_{ObjCHolder<::TKSmartCard>::retain(card)} {}

  [[nodiscard]] Text name() const noexcept override;
  [[nodiscard]] std::uint8_t cla() const noexcept override;
  void setSensitive(bool value) noexcept override;
  [[nodiscard]] bool hasContext() const noexcept override;
  void setContext(bool value) noexcept override;

  [[nodiscard]] ::TKSmartCard* object() const noexcept { return card_.get(); }

 private:
  ObjCHolder<::TKSmartCard> card_;
};

class ContentsPort final : public TKTokenKeychainContents {
 public:
  /// `token`: the one whose contents are filled. Before there is one nothing is published.
  void setToken(::TKToken* token) noexcept { token_ = token; }

  void append(const TKTokenKeychainCertificate& item) noexcept override;
  [[nodiscard]] bool initKey(const MirelCTKTokenKeychainKey& item) noexcept override;
  void append(const MirelCTKTokenKeychainKey& item) noexcept override;
  void fillWithItems() noexcept override;

 private:
  ::TKToken* token_ = nil;
  std::vector<ObjCHolder<::TKTokenKeychainItem>> items_;
  ObjCHolder<::MirelCTKTokenKeychainKey> key_;  // initialised last
};

class SessionPort final : public TKSmartCardTokenSession {
 public:
  explicit SessionPort(::TKSmartCardTokenSession* session) noexcept : session_{session} {}

  [[nodiscard]] TKSmartCard& smartCard() noexcept override;
  [[nodiscard]] std::optional<MirelCTKTokenKeychainKey> keyForObjectID(
      const Text& objectID, TKErrorPointer outError) noexcept override;

  /// The platform's object for the key that was found last, autoreleased; nil when there is none. Once for
  /// each key.
  [[nodiscard]] ::TKTokenKeychainKey* takeFoundKey() noexcept { return found_.autoreleased(); }

 private:
  ::TKSmartCardTokenSession* session_;
  std::optional<CardPort> card_;
  ObjCHolder<::TKTokenKeychainKey> found_;
};

class PINRequestPort final : public TKTokenSmartCardPINAuthOperation {
 public:
  /// `session`: the one that asked; nil for none.
  explicit PINRequestPort(::TKSmartCardTokenSession* session) noexcept : session_{session} {}
  /// To be given before the port is used.
  void setOperation(::TKTokenSmartCardPINAuthOperation* operation) noexcept { operation_ = operation; }

  [[nodiscard]] TKSmartCard& sessionSmartCard() noexcept override;
  [[nodiscard]] TKSmartCard& smartCard() noexcept override;
  void setSmartCard(const TKSmartCard& card) noexcept override;
  void setAPDUTemplate(const Bytes& command) noexcept override;
  void setPINFormat(int PINBitOffset) noexcept override;
  [[nodiscard]] std::shared_ptr<const SecretText> PIN() noexcept override;
  void clearPIN() noexcept override;

 private:
  ::TKSmartCardTokenSession* session_;
  ::TKTokenSmartCardPINAuthOperation* operation_ = nil;
  std::optional<CardPort> sessionCard_;
  std::optional<CardPort> card_;
};

class AlgorithmPort final : public TKTokenKeyAlgorithm {
 public:
  /// `algorithm`: nil for one that is none of the algorithms.
  explicit AlgorithmPort(::TKTokenKeyAlgorithm* algorithm) noexcept : algorithm_{algorithm} {}

  /// False, too, once the platform has raised: that is logged once, not for every algorithm there is.
  [[nodiscard]] bool isAlgorithm(SecKeyAlgorithm algorithm) const noexcept override;
  [[nodiscard]] Text description() const noexcept override;

 private:
  ::TKTokenKeyAlgorithm* algorithm_;
  mutable bool hasRaised_ = false;
};

}  // namespace mirel
