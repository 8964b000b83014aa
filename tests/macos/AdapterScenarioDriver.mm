#import "AdapterScenarioDriver.h"

#include "ExtensionPropertyList.h"
#include "double/LogRecorder.h"
#include "double/TokenSystem.h"

namespace mirel::test {
namespace {

class AdapterScenarioDriver final : public ScenarioDriver {
 public:
  Outcome insert(const std::string& readerName) override { return system_.offerCard(readerName); }
  void remove() override { system_.removeCard(); }
  std::string instanceID() override { return system_.instanceID(); }
  std::vector<PublishedItem> items() override { return system_.items(); }
  Outcome openSession() override { return system_.openSession(); }
  bool supports(std::size_t session, std::int64_t operation, const std::string& key,
                const std::string& algorithm) override {
    return system_.supports(session, operation, key, algorithm);
  }
  Outcome beginAuth(std::size_t session, std::int64_t operation, const std::string& key,
                    const std::optional<std::string>& constraint) override {
    return system_.beginAuth(session, operation, key, constraint);
  }
  PinRequest pinRequest() override { return system_.pinRequest().value(); }
  void enterPin(const std::optional<std::string>& pin) override { system_.enterPin(pin); }
  Outcome finishAuth() override { return system_.finishAuth(); }
  Outcome sign(std::size_t session, const ByteVector& data, const std::string& key,
               const std::string& algorithm) override {
    return system_.sign(session, data, key, algorithm);
  }
  Outcome decrypt(std::size_t session, const ByteVector& data, const std::string& key,
                  const std::string& algorithm) override {
    return system_.decrypt(session, data, key, algorithm);
  }
  Outcome exchange(std::size_t session, const ByteVector& publicKey, const std::string& key,
                   const std::string& algorithm) override {
    return system_.exchange(session, publicKey, key, algorithm);
  }

  std::vector<std::string> takeLogLines() override {
    constexpr std::string_view kProcess = "NSLog: ";
    std::vector<std::string> lines = recorder_.texts();
    recorder_.clear();
    for (std::string& line : lines) {
      if (line.starts_with(kProcess)) line.replace(0, kProcess.size(), "process: ");
    }
    return lines;
  }

 private:
  LogRecorder recorder_;
  TokenSystem system_{driverClassInPropertyList()};
};

}  // namespace

std::unique_ptr<ScenarioDriver> adapterScenarioDriver() { return std::make_unique<AdapterScenarioDriver>(); }

}  // namespace mirel::test
