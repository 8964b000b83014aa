#pragma once

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "platform/TokenKit.h"

namespace mirel::test {

struct TokenKitScript;

/// A PIN format as the platform makes it: only the offset can be changed.
class FakePinFormat final : public TKSmartCardPINFormat {
 public:
  [[nodiscard]] TKSmartCardPINCharset charset() const noexcept override {
    return TKSmartCardPINCharset::kNumeric;
  }
  [[nodiscard]] TKSmartCardPINEncoding encoding() const noexcept override {
    return TKSmartCardPINEncoding::kASCII;
  }
  [[nodiscard]] int minPINLength() const noexcept override { return 4; }
  [[nodiscard]] int maxPINLength() const noexcept override { return 8; }
  [[nodiscard]] int PINBlockByteLength() const noexcept override { return 8; }
  [[nodiscard]] TKSmartCardPINJustification PINJustification() const noexcept override {
    return TKSmartCardPINJustification::kLeft;
  }
  [[nodiscard]] int PINBitOffset() const noexcept override { return PINBitOffset_; }
  void setPINBitOffset(int value) noexcept override { PINBitOffset_ = value; }
  [[nodiscard]] int PINLengthBitOffset() const noexcept override { return 0; }
  [[nodiscard]] int PINLengthBitSize() const noexcept override { return 0; }

 private:
  int PINBitOffset_ = 0;
};

/// A PIN operation that remembers what was done to it.
class FakePinOperation final : public TKTokenSmartCardPINAuthOperation {
 public:
  explicit FakePinOperation(std::shared_ptr<const TokenKitScript> script) : script_{std::move(script)} {}

  [[nodiscard]] bool init() noexcept override;
  /// Fails the test: what builds on it finishes by itself.
  [[nodiscard]] bool finishWithError(TKErrorPointer outError) noexcept override;
  [[nodiscard]] std::shared_ptr<TKSmartCard> smartCard() const noexcept override { return smartCard_; }
  void setSmartCard(const std::shared_ptr<TKSmartCard>& card) noexcept override;
  [[nodiscard]] Bytes APDUTemplate() const noexcept override { return APDUTemplate_; }
  void setAPDUTemplate(const Bytes& command) noexcept override;
  [[nodiscard]] std::shared_ptr<TKSmartCardPINFormat> PINFormat() const noexcept override {
    return PINFormat_;
  }
  void setPINFormat(const std::shared_ptr<TKSmartCardPINFormat>& format) noexcept override;
  [[nodiscard]] std::shared_ptr<const SecretText> PIN() const noexcept override { return PIN_; }
  void setPIN(const std::shared_ptr<const SecretText>& pin) noexcept override { PIN_ = pin; }

  /// What was called, in order: "init", "setSmartCard", "setAPDUTemplate", "setPINFormat offset 0".
  std::vector<std::string> calls;

 private:
  std::shared_ptr<const TokenKitScript> script_;
  std::shared_ptr<TKSmartCard> smartCard_;
  Bytes APDUTemplate_;
  std::shared_ptr<TKSmartCardPINFormat> PINFormat_;
  std::shared_ptr<const SecretText> PIN_;
};

}  // namespace mirel::test
