#import "AdapterScenarioDriver.h"

#include "ExtensionPropertyList.h"
#include "double/LogRecorder.h"
#include "double/TokenSystem.h"

namespace mirel::test {
namespace {

StepResult resultOf(const Outcome& outcome) {
  StepResult result{outcome.succeeded, outcome.data};
  if (outcome.error)
    result.error = StepError{outcome.error->domain, outcome.error->code, outcome.error->userInfo};
  return result;
}

ScenarioItem itemOf(const PublishedItem& item) {
  ScenarioItem seen{item.isKey, item.objectID, item.label};
  if (item.constraints)
    seen.constraints =
        std::map<std::int64_t, std::string>(item.constraints->begin(), item.constraints->end());
  seen.canSign = item.canSign;
  seen.canDecrypt = item.canDecrypt;
  seen.canPerformKeyExchange = item.canPerformKeyExchange;
  seen.suitableForLogin = item.suitableForLogin;
  seen.certificateID = item.certificateID;
  seen.alwaysAuthenticate = item.alwaysAuthenticate.value_or(false);
  return seen;
}

class AdapterScenarioDriver final : public ScenarioDriver {
 public:
  StepResult insert(const std::string& readerName) override {
    return resultOf(system_.offerCard(readerName));
  }
  void remove() override { system_.removeCard(); }
  std::string instanceID() override { return system_.instanceID(); }
  std::vector<ScenarioItem> items() override {
    std::vector<ScenarioItem> items;
    for (const PublishedItem& item : system_.items()) items.push_back(itemOf(item));
    return items;
  }
  StepResult openSession() override { return resultOf(system_.openSession()); }
  bool supports(std::size_t session, std::int64_t operation, const std::string& key,
                const std::string& algorithm) override {
    return system_.supports(session, operation, key, algorithm);
  }
  StepResult beginAuth(std::size_t session, std::int64_t operation, const std::string& key,
                       const std::optional<std::string>& constraint) override {
    return resultOf(system_.beginAuth(session, operation, key, constraint));
  }
  ScenarioPin pinRequest() override {
    const PinRequest request = system_.pinRequest().value();
    return {request.apduTemplate, request.pinBitOffset, request.minPinLength, request.maxPinLength,
            request.readerName};
  }
  void enterPin(const std::optional<std::string>& pin) override { system_.enterPin(pin); }
  StepResult finishAuth() override { return resultOf(system_.finishAuth()); }
  StepResult sign(std::size_t session, const ByteVector& data, const std::string& key,
                  const std::string& algorithm) override {
    return resultOf(system_.sign(session, data, key, algorithm));
  }
  StepResult decrypt(std::size_t session, const ByteVector& data, const std::string& key,
                     const std::string& algorithm) override {
    return resultOf(system_.decrypt(session, data, key, algorithm));
  }
  StepResult exchange(std::size_t session, const ByteVector& publicKey, const std::string& key,
                      const std::string& algorithm) override {
    return resultOf(system_.exchange(session, publicKey, key, algorithm));
  }

  std::vector<std::string> takeLogLines() override {
    std::vector<std::string> lines;
    for (const LogLine& line : recorder_.lines()) lines.push_back(channelOf(line) + line.text);
    recorder_.clear();
    return lines;
  }

 private:
  static std::string channelOf(const LogLine& line) {
    switch (line.channel) {
      case LogChannel::kDefault: return "default: ";
      case LogChannel::kError: return "error: ";
      case LogChannel::kNSLog: return "process: ";
      default: return "another channel: ";
    }
  }

  LogRecorder recorder_;
  TokenSystem system_{driverClassInPropertyList()};
};

}  // namespace

std::unique_ptr<ScenarioDriver> adapterScenarioDriver() { return std::make_unique<AdapterScenarioDriver>(); }

}  // namespace mirel::test
