#include "CoreScenarioDriver.h"

#include <algorithm>
#include <span>
#include <utility>

#include "HostTokenKit.h"
#include "platform/Certificate.h"
#include "platform/LocalizedStrings.h"
#include "support/RecordingLog.h"
#include "token/MirelCTKTokenKeychainKey.h"
#include "token/MirelSCToken.h"
#include "token/MirelSCTokenAuth.h"
#include "token/MirelSCTokenDriver.h"
#include "token/MirelSCTokenSession.h"

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

StepResult resultOf(bool succeeded, const std::optional<TKError>& error, const Bytes& data = Bytes{}) {
  StepResult result{succeeded, dataOrNothing(data)};
  if (!error) return result;
  result.error = StepError{error->domain.toUtf8(), error->code};
  if (!error->localizedDescription.isNull())
    result.error->userInfo["NSLocalizedDescription"] = error->localizedDescription.toUtf8();
  return result;
}

ScenarioItem itemOf(const TKTokenKeychainItem& item) {
  ScenarioItem seen;
  seen.objectID = item.objectID().toUtf8();
  seen.label = utf8OrNothing(item.label());
  if (const auto constraints = item.constraints()) {
    seen.constraints.emplace();
    for (const auto& [operation, constraint] : *constraints)
      (*seen.constraints)[static_cast<std::int64_t>(operation)] = constraint.toUtf8();
  }
  const auto* const key = dynamic_cast<const MirelCTKTokenKeychainKey*>(&item);
  if (!key) return seen;
  seen.isKey = true;
  seen.canSign = key->canSign();
  seen.canDecrypt = key->canDecrypt();
  seen.canPerformKeyExchange = key->canPerformKeyExchange();
  seen.suitableForLogin = key->suitableForLogin();
  seen.certificateID = utf8OrNothing(key->certificateID());
  seen.alwaysAuthenticate = key->alwaysAuthenticate();
  return seen;
}

HostKeyAlgorithm algorithmNamed(const std::string& name) {
  return HostKeyAlgorithm{secKeyAlgorithmNamed(name).value()};
}

class CoreScenarioDriver final : public ScenarioDriver {
 public:
  explicit CoreScenarioDriver(PlatformServices services) : services_{std::move(services)} {
    services_.log = log_;
    services_.certificates = hostCertificateParser();
    services_.strings = std::make_shared<EnglishTexts>();
    services_.observer = nullptr;
  }
  ~CoreScenarioDriver() override { remove(); }

  StepResult insert(const std::string& readerName) override {
    remove();
    const Text name = Text::fromUtf8(readerName);
    kit_ = std::make_shared<HostTokenKit>(name);
    services_.tokenKit = kit_;
    driver_ = std::make_shared<MirelSCTokenDriver>(services_);
    std::optional<TKError> error;
    token_ = std::dynamic_pointer_cast<MirelSCToken>(
        driver_->createTokenForSmartCard(driver_, cardInReader(name), Bytes{}, &error));
    return resultOf(token_ != nullptr, error);
  }

  void remove() override {
    operation_.reset();
    sessions_.clear();
    token_.reset();
    driver_.reset();
  }

  std::string instanceID() override { return kit_->lastToken()->instanceID().toUtf8(); }

  std::vector<ScenarioItem> items() override {
    std::vector<ScenarioItem> items;
    for (const auto& item : token_->keychainContents()->items()) items.push_back(itemOf(*item));
    return items;
  }

  StepResult openSession() override {
    std::optional<TKError> error;
    auto session =
        std::dynamic_pointer_cast<MirelSCTokenSession>(token_->createSessionWithError(token_, &error));
    if (!session) return resultOf(false, error);
    sessions_.push_back(std::move(session));
    return resultOf(true, error);
  }

  bool supports(std::size_t session, std::int64_t operation, const std::string& key,
                const std::string& algorithm) override {
    const auto& asked = sessions_.at(session);
    return asked->supportsOperation(asked, TKTokenOperation{operation}, Text::fromUtf8(key),
                                    algorithmNamed(algorithm));
  }

  StepResult beginAuth(std::size_t session, std::int64_t operation, const std::string& key,
                       const std::optional<std::string>& constraint) override {
    const auto& asked = sessions_.at(session);
    operation_.reset();
    std::optional<TKError> error;
    operation_ = std::dynamic_pointer_cast<MirelSCTokenAuth>(asked->beginAuthForOperation(
        asked, TKTokenOperation{operation},
        constraint ? constraintNamed(*constraint) : constraintOf(TKTokenOperation{operation}, key), &error));
    return resultOf(operation_ != nullptr, error);
  }

  ScenarioPin pinRequest() override {
    const auto format = operation_->PINFormat();
    return {dataOrNothing(operation_->APDUTemplate()), format->PINBitOffset(), format->minPINLength(),
            format->maxPINLength(), utf8OrNothing(operation_->smartCard()->slot()->name())};
  }

  void enterPin(const std::optional<std::string>& pin) override {
    if (!pin) return operation_->setPIN(nullptr);
    const Data utf8(pin->begin(), pin->end());
    operation_->setPIN(SecretText::fromUtf8(utf8));
  }

  StepResult finishAuth() override {
    std::optional<TKError> error;
    const bool succeeded = operation_->finishWithError(&error);
    operation_.reset();
    return resultOf(succeeded, error);
  }

  StepResult sign(std::size_t session, const Data& data, const std::string& key,
                  const std::string& algorithm) override {
    const auto& asked = sessions_.at(session);
    std::optional<TKError> error;
    const Bytes answer =
        asked->signData(asked, Bytes{data}, Text::fromUtf8(key), algorithmNamed(algorithm), &error);
    return resultOf(!answer.isNull(), error, answer);
  }

  StepResult decrypt(std::size_t session, const Data& data, const std::string& key,
                     const std::string& algorithm) override {
    const auto& asked = sessions_.at(session);
    std::optional<TKError> error;
    const Bytes answer =
        asked->decryptData(asked, Bytes{data}, Text::fromUtf8(key), algorithmNamed(algorithm), &error);
    return resultOf(!answer.isNull(), error, answer);
  }

  StepResult exchange(std::size_t session, const Data& publicKey, const std::string& key,
                      const std::string& algorithm) override {
    const auto& asked = sessions_.at(session);
    std::optional<TKError> error;
    const Bytes answer = asked->performKeyExchangeWithPublicKey(asked, Bytes{publicKey}, Text::fromUtf8(key),
                                                                algorithmNamed(algorithm), nullptr, &error);
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
    const auto item = token_->keychainContents()->keyForObjectID(Text::fromUtf8(key), nullptr);
    const auto constraints = item ? item->constraints() : std::nullopt;
    if (!constraints || !constraints->contains(operation)) return Text{};
    return constraints->at(operation);
  }

  std::shared_ptr<RecordingLog> log_ = std::make_shared<RecordingLog>();
  PlatformServices services_;
  std::shared_ptr<HostTokenKit> kit_;
  std::shared_ptr<MirelSCTokenDriver> driver_;
  std::shared_ptr<MirelSCToken> token_;
  std::vector<std::shared_ptr<MirelSCTokenSession>> sessions_;
  std::shared_ptr<MirelSCTokenAuth> operation_;
};

}  // namespace

std::unique_ptr<ScenarioDriver> coreScenarioDriver(const PlatformServices& services) {
  return std::make_unique<CoreScenarioDriver>(services);
}

}  // namespace test
}  // namespace mirel
