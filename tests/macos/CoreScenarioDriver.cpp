#include "CoreScenarioDriver.h"

#include <utility>
#include <variant>

#include "HostToken.h"
#include "platform/Certificate.h"
#include "platform/LocalizedStrings.h"
#include "support/RecordingLog.h"

namespace mirel {

/// The host's; it has another name here because the adapters bring theirs along. See CMakeLists.txt.
[[nodiscard]] std::shared_ptr<CertificateParser> hostCertificateParser();

namespace test {
namespace {

using Data = std::vector<std::uint8_t>;

class EnglishTexts final : public LocalizedStrings {
 public:
  [[nodiscard]] Text localizedString(std::string_view key) noexcept override {
    return Text::fromUtf8(englishString(key));
  }
};

std::optional<std::string> utf8OrNothing(const Text& text) {
  return text.isNull() ? std::nullopt : std::optional{text.toUtf8()};
}

std::optional<Data> dataOrNothing(const Bytes& bytes) {
  if (bytes.isNull()) return std::nullopt;
  return Data(bytes.view().begin(), bytes.view().end());
}

Outcome resultOf(bool succeeded, const std::optional<TKError>& error, const Bytes& data = Bytes{}) {
  Outcome result{succeeded, dataOrNothing(data), {}};
  if (!error) return result;
  result.error = SystemError{error->domain.toUtf8(), error->code};
  if (!error->localizedDescription.isNull())
    result.error->userInfo["NSLocalizedDescription"] = error->localizedDescription.toUtf8();
  return result;
}

void describe(const TKTokenKeychainCertificate& item, PublishedItem& seen) {
  seen.objectID = item.objectID.toUtf8();
  seen.label = utf8OrNothing(item.label);
}

void describe(const MirelCTKTokenKeychainKey& item, PublishedItem& seen) {
  seen.isKey = true;
  seen.objectID = item.objectID.toUtf8();
  seen.label = utf8OrNothing(item.label);
  seen.constraints.emplace();
  for (const auto& [operation, constraint] : item.constraints)
    (*seen.constraints)[static_cast<long>(operation)] = constraint.toUtf8();
  seen.canSign = item.canSign;
  seen.canDecrypt = item.canDecrypt;
  seen.canPerformKeyExchange = item.canPerformKeyExchange;
  seen.suitableForLogin = item.suitableForLogin;
  seen.certificateID = utf8OrNothing(item.certificateID);
  seen.alwaysAuthenticate = item.alwaysAuthenticate;
}

HostKeyAlgorithm algorithmNamed(const std::string& name) {
  return HostKeyAlgorithm{secKeyAlgorithmNamed(name).value()};
}

/// A request for a PIN that remembers what the platform would be told.
class RecordedRequest final : public TKTokenSmartCardPINAuthOperation {
 public:
  RecordedRequest(const PlatformServices& services, std::shared_ptr<HostTokenSession> session)
      : session_{std::move(session)}, core_{services} {
    asked_.minPinLength = 4;  // the platform's defaults
    asked_.maxPinLength = 8;
    (void)core_.initWithSession(session_->core(), *this, [] { return true; });
  }

  [[nodiscard]] TKSmartCard& sessionSmartCard() noexcept override { return session_->smartCard(); }
  [[nodiscard]] TKSmartCard& smartCard() noexcept override { return session_->smartCard(); }
  void setSmartCard(const TKSmartCard& card) noexcept override {
    asked_.readerName = utf8OrNothing(card.name());
  }
  void setAPDUTemplate(const Bytes& command) noexcept override {
    asked_.apduTemplate = dataOrNothing(command);
  }
  void setPINFormat(int PINBitOffset) noexcept override { asked_.pinBitOffset = PINBitOffset; }
  [[nodiscard]] std::shared_ptr<const SecretText> PIN() noexcept override { return pin_; }
  void clearPIN() noexcept override { pin_ = nullptr; }

  [[nodiscard]] const PinRequest& asked() const { return asked_; }
  void enter(std::shared_ptr<const SecretText> pin) { pin_ = std::move(pin); }
  [[nodiscard]] bool finish(TKErrorPointer outError) { return core_.finishWithError(*this, outError); }

 private:
  std::shared_ptr<HostTokenSession> session_;
  PinRequest asked_;
  std::shared_ptr<const SecretText> pin_;
  MirelSCTokenAuth core_;
};

class CoreScenarioDriver final : public ScenarioDriver {
 public:
  explicit CoreScenarioDriver(PlatformServices services) : services_{std::move(services)} {
    services_.log = log_;
    services_.certificates = hostCertificateParser();
    services_.strings = std::make_shared<EnglishTexts>();
    services_.observer = nullptr;
  }

  Outcome insert(const std::string& readerName) override {
    remove();
    std::optional<TKError> error;
    token_ = HostToken::createdForReader(services_, Text::fromUtf8(readerName), &error);
    return resultOf(token_ != nullptr, error);
  }

  void remove() override {
    operation_.reset();
    sessions_.clear();
    token_.reset();
  }

  std::string instanceID() override { return token_->instanceID().toUtf8(); }

  std::vector<PublishedItem> items() override {
    std::vector<PublishedItem> items;
    for (const auto& item : token_->contents().items())
      std::visit([&](const auto& known) { describe(known, items.emplace_back()); }, item);
    return items;
  }

  Outcome openSession() override {
    std::optional<TKError> error;
    sessions_.push_back(token_->createSessionWithError(&error));
    return resultOf(true, error);
  }

  bool supports(std::size_t session, std::int64_t operation, const std::string& key,
                const std::string& algorithm) override {
    return sessions_.at(session)->supportsOperation(TKTokenOperation{operation}, Text::fromUtf8(key),
                                                    algorithmNamed(algorithm));
  }

  Outcome beginAuth(std::size_t session, std::int64_t operation, const std::string& key,
                    const std::optional<std::string>& constraint) override {
    const auto& asked = sessions_.at(session);
    operation_.reset();
    std::optional<TKError> error;
    const Text wanted =
        constraint ? constraintNamed(*constraint) : constraintOf(TKTokenOperation{operation}, key);
    if (asked->core()->beginAuthForOperation(wanted, &error))
      operation_ = std::make_unique<RecordedRequest>(services_, asked);
    return resultOf(operation_ != nullptr, error);
  }

  PinRequest pinRequest() override { return operation_->asked(); }

  void enterPin(const std::optional<std::string>& pin) override {
    if (!pin) return operation_->enter(nullptr);
    const Data utf8(pin->begin(), pin->end());
    operation_->enter(SecretText::fromUtf8(utf8));
  }

  Outcome finishAuth() override {
    std::optional<TKError> error;
    const bool succeeded = operation_->finish(&error);
    operation_.reset();
    return resultOf(succeeded, error);
  }

  Outcome sign(std::size_t session, const Data& data, const std::string& key,
               const std::string& algorithm) override {
    std::optional<TKError> error;
    const Bytes answer =
        sessions_.at(session)->signData(Bytes{data}, Text::fromUtf8(key), algorithmNamed(algorithm), &error);
    return resultOf(!answer.isNull(), error, answer);
  }

  Outcome decrypt(std::size_t session, const Data& data, const std::string& key,
                  const std::string& algorithm) override {
    std::optional<TKError> error;
    const Bytes answer = sessions_.at(session)->decryptData(Bytes{data}, Text::fromUtf8(key),
                                                            algorithmNamed(algorithm), &error);
    return resultOf(!answer.isNull(), error, answer);
  }

  Outcome exchange(std::size_t session, const Data&, const std::string& key,
                   const std::string& algorithm) override {
    std::optional<TKError> error;
    const Bytes answer = sessions_.at(session)->performKeyExchangeWithPublicKey(
        Text::fromUtf8(key), algorithmNamed(algorithm), &error);
    return resultOf(!answer.isNull(), error, answer);
  }

  std::vector<std::string> takeLogLines() override {
    std::vector<std::string> lines;
    // Every sink of the log brings its lines to printable ones.
    for (const std::string& line : std::exchange(log_->allLines, {})) lines.push_back(printableLine(line));
    return lines;
  }

 private:
  static Text constraintNamed(const std::string& name) {
    // A boolean is no text.
    return name == "YES" || name == "NO" ? Text{} : Text::fromUtf8(name);
  }

  [[nodiscard]] Text constraintOf(TKTokenOperation operation, const std::string& key) const {
    const auto item = token_->contents().keyForObjectID(Text::fromUtf8(key), nullptr);
    return item && item->constraints.contains(operation) ? item->constraints.at(operation) : Text{};
  }

  std::shared_ptr<RecordingLog> log_ = std::make_shared<RecordingLog>();
  PlatformServices services_;
  std::shared_ptr<HostToken> token_;
  std::vector<std::shared_ptr<HostTokenSession>> sessions_;
  std::unique_ptr<RecordedRequest> operation_;
};

}  // namespace

std::unique_ptr<ScenarioDriver> coreScenarioDriver(const PlatformServices& services) {
  return std::make_unique<CoreScenarioDriver>(services);
}

}  // namespace test
}  // namespace mirel
