#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <optional>
#include <utility>

#include "platform/AtomicProperty.h"
#include "platform/TokenKit.h"

namespace mirel::test {

/// A reader and the card in it, as one connection to the card.
class FakeSmartCard final : public TKSmartCard {
 public:
  explicit FakeSmartCard(const Text& readerName) : slot_{std::make_shared<FakeSlot>(readerName)} {}

  [[nodiscard]] std::shared_ptr<TKSmartCardSlot> slot() const noexcept override { return slot_; }
  [[nodiscard]] std::uint8_t cla() const noexcept override { return classByte; }
  [[nodiscard]] bool sensitive() const noexcept override { return sensitive_; }
  void setSensitive(bool value) noexcept override { sensitive_ = value; }
  [[nodiscard]] std::optional<bool> context() const noexcept override { return context_.get(); }
  void setContext(std::optional<bool> value) noexcept override {
    whenContextIsSet();
    context_.set(value);
  }

  std::uint8_t classByte = 0;
  /// Called before the mark changes.
  std::function<void()> whenContextIsSet = [] {};

 private:
  class FakeSlot final : public TKSmartCardSlot {
   public:
    explicit FakeSlot(Text name) : name_{std::move(name)} {}
    [[nodiscard]] Text name() const noexcept override { return name_; }

   private:
    Text name_;
  };

  std::shared_ptr<TKSmartCardSlot> slot_;
  std::atomic<bool> sensitive_{false};
  AtomicProperty<std::optional<bool>> context_;
};

}  // namespace mirel::test
