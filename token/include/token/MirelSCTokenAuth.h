#pragma once

#include <memory>

#include "platform/PlatformServices.h"
#include "platform/TokenKit.h"

namespace mirel {

class MirelSCTokenSession;

/// One entry of the PIN. It builds on the platform's PIN operation, which describes to the platform how the
/// PIN is laid into a VERIFY command (ISO 7816-4, section 7.5.6); the login itself goes through the session's
/// provider, with the PIN that the platform has filled in. Nothing throws.
class MirelSCTokenAuth final : public TKTokenSmartCardPINAuthOperation {
 public:
  /// `base`: the platform's PIN operation, allocated and not initialised.
  MirelSCTokenAuth(PlatformServices services,
                   std::shared_ptr<TKTokenSmartCardPINAuthOperation> base) noexcept;

  /// Sets the card, the command and the PIN format. False when the platform refuses
  /// the operation.
  [[nodiscard]] bool initWithSession(const std::shared_ptr<MirelSCTokenSession>& session) noexcept;

  /// The session that asked for it; null before a successful initialisation. Set once.
  [[nodiscard]] std::shared_ptr<MirelSCTokenSession> session() const noexcept { return session_; }

  /// Logs in with the PIN. On success the session is authenticated and its card marked as sensitive and in
  /// use. On failure `outError` gets kAuthenticationFailed with a text for the user that tells the tries
  /// left.
  [[nodiscard]] bool finishWithError(TKErrorPointer outError) noexcept override;

  // The platform's PIN operation.
  [[nodiscard]] bool init() noexcept override { return base_->init(); }
  [[nodiscard]] void* platformObject() const noexcept override { return base_->platformObject(); }
  [[nodiscard]] Text description() const noexcept override { return base_->description(); }
  [[nodiscard]] std::shared_ptr<TKSmartCard> smartCard() const noexcept override {
    return base_->smartCard();
  }
  void setSmartCard(const std::shared_ptr<TKSmartCard>& card) noexcept override { base_->setSmartCard(card); }
  [[nodiscard]] Bytes APDUTemplate() const noexcept override { return base_->APDUTemplate(); }
  void setAPDUTemplate(const Bytes& command) noexcept override { base_->setAPDUTemplate(command); }
  [[nodiscard]] std::shared_ptr<TKSmartCardPINFormat> PINFormat() const noexcept override {
    return base_->PINFormat();
  }
  void setPINFormat(const std::shared_ptr<TKSmartCardPINFormat>& format) noexcept override {
    base_->setPINFormat(format);
  }
  [[nodiscard]] std::shared_ptr<const SecretText> PIN() const noexcept override { return base_->PIN(); }
  void setPIN(const std::shared_ptr<const SecretText>& pin) noexcept override { base_->setPIN(pin); }

 private:
  PlatformServices services_;
  std::shared_ptr<TKTokenSmartCardPINAuthOperation> base_;
  std::shared_ptr<MirelSCTokenSession> session_;
};

}  // namespace mirel
