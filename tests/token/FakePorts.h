#pragma once

/// The ports of token/TokenKit.h, as a test plays them.

#include <atomic>
#include <functional>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <variant>
#include <vector>

#include "token/TokenKit.h"

namespace mirel::test {

inline constexpr const char16_t* kReader = u"Reader A 00";

/// What ports were asked for, in order. Several can share one record; a port without one records nothing, and
/// can be used by several threads.
using PortCalls = std::vector<std::string>;

inline void record(PortCalls* calls, std::string what) {
  if (calls) calls->push_back(std::move(what));
}

/// Records "card.name", "card.cla", "card.setSensitive 1", "card.hasContext" and "card.setContext 1".
class FakeSmartCard final : public TKSmartCard {
 public:
  explicit FakeSmartCard(PortCalls* calls = nullptr, Text reader = Text{kReader})
      : readerName{std::move(reader)}, calls_{calls} {}

  [[nodiscard]] Text name() const noexcept override {
    return asked("name"), isConnected ? readerName : Text{};
  }
  [[nodiscard]] std::uint8_t cla() const noexcept override {
    return asked("cla"), isConnected ? classByte : std::uint8_t{0};
  }
  [[nodiscard]] bool hasContext() const noexcept override {
    return asked("hasContext"), isConnected && marked;
  }
  void setSensitive(bool value) noexcept override {
    asked(value ? "setSensitive 1" : "setSensitive 0"), sensitive = value;
  }
  void setContext(bool value) noexcept override {
    asked(value ? "setContext 1" : "setContext 0"), marked = true;
  }

  /// False: a connection to no card.
  bool isConnected = true;
  Text readerName;
  std::uint8_t classByte = 0;
  std::atomic<bool> sensitive{false};
  std::atomic<bool> marked{false};
  /// Called whenever the card is asked for something or told something.
  std::function<void()> whenAsked = [] {};

 private:
  void asked(const char* what) const { record(calls_, std::string{"card."} + what), whenAsked(); }

  PortCalls* calls_;
};

using FakeItem = std::variant<TKTokenKeychainCertificate, MirelCTKTokenKeychainKey>;

/// The items, each in one line:
///   certificate cert_MyKey_01, label 01
///   key 01, label 01, certificate cert_MyKey_01, can sign, for login, PIN always, {2: PINAlways}
[[nodiscard]] std::vector<std::string> itemTexts(const std::vector<FakeItem>& items);

/// Records "append " and the item's line, "initKey " and the item's line, and "fillWithItems".
class FakeContents final : public TKTokenKeychainContents {
 public:
  explicit FakeContents(std::shared_ptr<Log> log, PortCalls* calls = nullptr)
      : log_{std::move(log)}, calls_{calls} {}

  void append(const TKTokenKeychainCertificate& item) noexcept override { add(item); }
  void append(const MirelCTKTokenKeychainKey& item) noexcept override { add(item); }
  [[nodiscard]] bool initKey(const MirelCTKTokenKeychainKey& item) noexcept override;
  void fillWithItems() noexcept override;

  /// What was published last.
  [[nodiscard]] std::vector<FakeItem> items() const {
    return fills.empty() ? std::vector<FakeItem>{} : fills.back();
  }
  /// kObjectNotFound for a key that was not published.
  [[nodiscard]] std::optional<MirelCTKTokenKeychainKey> keyForObjectID(const Text& objectID,
                                                                       TKErrorPointer outError) const;

  /// The object identifiers of the keys that are refused.
  std::set<std::u16string> refusedKeys;
  /// Called before new items are published.
  std::function<void()> whenFilled = [] {};
  /// Not yet published.
  std::vector<FakeItem> appended;
  /// The items of every time it was filled.
  std::vector<std::vector<FakeItem>> fills;

 private:
  void add(const FakeItem& item);

  std::shared_ptr<Log> log_;
  PortCalls* calls_;
};

/// Records "session.smartCard" and "session.keyForObjectID 01".
class FakeSession final : public TKSmartCardTokenSession {
 public:
  explicit FakeSession(const FakeContents* ofItsToken, PortCalls* calls = nullptr,
                       const Text& reader = Text{kReader})
      : card{calls, reader}, contents{ofItsToken}, calls_{calls} {}

  [[nodiscard]] TKSmartCard& smartCard() noexcept override {
    return record(calls_, "session.smartCard"), card;
  }
  [[nodiscard]] std::optional<MirelCTKTokenKeychainKey> keyForObjectID(
      const Text& objectID, TKErrorPointer outError) noexcept override {
    record(calls_, "session.keyForObjectID " + objectID.orNullMark().toUtf8());
    return contents ? contents->keyForObjectID(objectID, outError) : std::nullopt;
  }

  FakeSmartCard card;
  /// Null: the token has gone.
  const FakeContents* contents;

 private:
  PortCalls* calls_;
};

/// Records the names of its functions, the offset behind "setPINFormat ".
class FakePinRequest final : public TKTokenSmartCardPINAuthOperation {
 public:
  explicit FakePinRequest(FakeSession& session, PortCalls* calls = nullptr)
      : card{&session.card}, session_{session}, calls_{calls} {}

  [[nodiscard]] TKSmartCard& sessionSmartCard() noexcept override {
    return record(calls_, "sessionSmartCard"), session_.card;
  }
  [[nodiscard]] TKSmartCard& smartCard() noexcept override { return record(calls_, "smartCard"), *card; }
  void setSmartCard(const TKSmartCard& given) noexcept override {
    record(calls_, "setSmartCard"), givenCard = &given;
  }
  void setAPDUTemplate(const Bytes& command) noexcept override {
    record(calls_, "setAPDUTemplate"), APDUTemplate = command;
  }
  void setPINFormat(int PINBitOffset) noexcept override {
    record(calls_, "setPINFormat " + std::to_string(PINBitOffset));
  }
  [[nodiscard]] std::shared_ptr<const SecretText> PIN() noexcept override {
    return record(calls_, "PIN"), pin;
  }
  void clearPIN() noexcept override { record(calls_, "clearPIN"), pin = nullptr; }

  FakeSmartCard* card;  ///< its own connection
  const TKSmartCard* givenCard = nullptr;
  Bytes APDUTemplate;
  std::shared_ptr<const SecretText> pin;

 private:
  FakeSession& session_;
  PortCalls* calls_;
};

/// Keeps what it was compared with.
class FakeKeyAlgorithm final : public TKTokenKeyAlgorithm {
 public:
  /// Requests that no client can make.
  enum class Is { kNone, kEvery };

  explicit FakeKeyAlgorithm(SecKeyAlgorithm algorithm) : algorithm_{algorithm} {}
  explicit FakeKeyAlgorithm(Is is) : isEvery_{is == Is::kEvery} {}
  [[nodiscard]] bool isAlgorithm(SecKeyAlgorithm algorithm) const noexcept override {
    askedFor.push_back(algorithm);
    return isEvery_ || algorithm == algorithm_;
  }
  [[nodiscard]] Text description() const noexcept override { return Text{u"<an algorithm>"}; }

  mutable std::vector<SecKeyAlgorithm> askedFor;

 private:
  std::optional<SecKeyAlgorithm> algorithm_;
  bool isEvery_ = false;
};

}  // namespace mirel::test
